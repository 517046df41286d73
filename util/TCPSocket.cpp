#include "util/TCPSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <optional>

#include "util/Mutex.h"
#include "util/System.h"

namespace {

// The resolver is not trusted to be reentrant: one lookup at a time.
Mutex& resolverMutex() {
  static Mutex m;
  return m;
}

// The secure layer's readiness test touches state shared by all connections.
Mutex& secureLayerMutex() {
  static Mutex m;
  return m;
}

// printf-style message in a fixed buffer, as every socket error is built.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
  char buffer[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buffer, sizeof buffer, fmt, args);
  va_end(args);
  return buffer;
}

using System::errorText;

bool parseDotted(const std::string& host, in_addr& out) {
  return inet_pton(AF_INET, host.c_str(), &out) == 1;
}

std::string dotted(const in_addr& addr) {
  char text[INET_ADDRSTRLEN] = {0};
  inet_ntop(AF_INET, &addr, text, sizeof text);
  return text;
}

[[noreturn]] void hostNotFound(const std::string& host, const std::string& why) {
  throw TCPSocket::exception(
      format("couldn't find host \"%.60s\": %.150s", host.c_str(), why.c_str()));
}

// The IPv4 addresses of a dotted address or name. Throws when there are none.
std::vector<in_addr> addressesOf(const std::string& host) {
  in_addr address{};
  if (parseDotted(host, address)) return {address};
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* result = nullptr;
  Mutex::Lock lock(resolverMutex());
  const int rc = getaddrinfo(host.c_str(), nullptr, &hints, &result);
  if (rc != 0) hostNotFound(host, rc == EAI_SYSTEM ? errorText(errno) : gai_strerror(rc));
  std::vector<in_addr> found;
  for (addrinfo* p = result; p; p = p->ai_next) {
    found.push_back(reinterpret_cast<sockaddr_in*>(p->ai_addr)->sin_addr);
  }
  freeaddrinfo(result);
  if (found.empty()) hostNotFound(host, "no IPv4 address");
  return found;
}

const int64_t kNanosPerMs = 1000000;
// Longest stretch a wait goes without looking at the cancel flag.
const int kCancelCheckMs = 100;

// A span as a poll() wait, rounded up so a wait never wakes before its limit.
int pollMs(const Ticks& span) {
  const int64_t ms = (std::max<int64_t>(span.nanos(), 0) + kNanosPerMs - 1) / kNanosPerMs;
  return static_cast<int>(std::min<int64_t>(ms, INT_MAX));
}

// The shorter of two poll() waits, where -1 means no limit.
int shorterWait(int a, int b) { return a < 0 ? b : (b < 0 ? a : std::min(a, b)); }

// Errors with which sendfile refuses a descriptor it cannot read at an offset.
bool refusesFile(int error) {
  return error == EINVAL || error == ENOSYS || error == ESPIPE || error == EOPNOTSUPP ||
         error == EBADF;
}

// Makes a descriptor non-blocking for the scope's life unless it already is.
class NonBlockingScope {
 public:
  explicit NonBlockingScope(int fd) : mFd(fd), mFlags(::fcntl(fd, F_GETFL)) {
    mChanged = mFlags >= 0 && (mFlags & O_NONBLOCK) == 0 &&
               ::fcntl(fd, F_SETFL, mFlags | O_NONBLOCK) == 0;
  }
  ~NonBlockingScope() {
    if (mChanged) ::fcntl(mFd, F_SETFL, mFlags);
  }
  NonBlockingScope(const NonBlockingScope&) = delete;
  NonBlockingScope& operator=(const NonBlockingScope&) = delete;
  bool active() const { return mFlags >= 0 && ((mFlags & O_NONBLOCK) != 0 || mChanged); }

 private:
  int mFd;
  int mFlags;
  bool mChanged;
};

// sendfile has no MSG_NOSIGNAL: the guard blocks SIGPIPE for its life and
// takes back the one a failed send raised, unless one was pending already.
class SigPipeGuard {
 public:
  SigPipeGuard() {
    sigemptyset(&mPipe);
    sigaddset(&mPipe, SIGPIPE);
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &mPipe, &old);
    mWasBlocked = sigismember(&old, SIGPIPE) == 1;
    sigset_t pending;
    mWasPending = mWasBlocked && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  }
  ~SigPipeGuard() {
    if (!mWasBlocked) pthread_sigmask(SIG_UNBLOCK, &mPipe, nullptr);
  }
  SigPipeGuard(const SigPipeGuard&) = delete;
  SigPipeGuard& operator=(const SigPipeGuard&) = delete;
  // After a send failed with EPIPE.
  void takeBack() {
    if (mWasPending) return;
    const timespec noWait{0, 0};
    while (sigtimedwait(&mPipe, nullptr, &noWait) < 0 && errno == EINTR) {
    }
  }

 private:
  sigset_t mPipe;
  bool mWasBlocked;
  bool mWasPending;
};

// The IPv4 address of fd's peer (or with local, its own); false when none.
bool addressOf(const System::FileDescriptor& fd, bool local, sockaddr_in& addr) {
  socklen_t len = sizeof addr;
  sockaddr* any = reinterpret_cast<sockaddr*>(&addr);
  const int rc = !fd.valid() ? -1 : local ? ::getsockname(fd.get(), any, &len)
                                           : ::getpeername(fd.get(), any, &len);
  return rc == 0 && addr.sin_family == AF_INET;
}

}  // namespace

TCPSocket::~TCPSocket() { close(); }

std::pair<System::FileDescriptor, System::FileDescriptor> TCPSocket::pair() {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) < 0) {
    throw exception(format("couldn't create a socket pair: %.150s", errorText(errno).c_str()));
  }
  return {System::FileDescriptor(fds[0]), System::FileDescriptor(fds[1])};
}

void TCPSocket::failAndClose(const std::string& message) {
  close();
  throw exception(message);
}

void TCPSocket::failAndClose(int error, const std::string& prefix) {
  mLastError = error;
  failAndClose(prefix + errorText(error));
}

bool TCPSocket::fail(int error) {
  mLastError = error;
  return false;
}

bool TCPSocket::writesBounded() const {
  return mWriteTimeout >= 0 || mDeadline != Ticks() || mCancelFlag != nullptr;
}

bool TCPSocket::limitReached() {
  if (mCancelFlag && mCancelFlag->load()) return !fail(ECANCELED);
  if (mDeadline != Ticks() && !(Ticks::currentTime() < mDeadline)) return !fail(ETIMEDOUT);
  return false;
}

bool TCPSocket::await(short events, int timeoutMs, bool stallable) {
  const bool hasDeadline = mDeadline != Ticks();
  const bool limited = timeoutMs >= 0;
  const Ticks timeout(int64_t(std::max(timeoutMs, 0)) * kNanosPerMs);
  Ticks timeoutEnd = Ticks::currentTime() + timeout;
  // The flag and the deadline come first, so neither reaches the stall
  // handler. A time-out of 0 polls once.
  for (bool polled = false;; polled = true) {
    if (mCancelFlag && mCancelFlag->load()) return fail(ECANCELED);
    const Ticks now = Ticks::currentTime();
    if (hasDeadline && !(now < mDeadline)) return fail(ETIMEDOUT);
    if (polled && limited && !(now < timeoutEnd)) {
      if (!stallable || !mStallHandler || !mStallHandler()) return fail(ETIMEDOUT);
      timeoutEnd = Ticks::currentTime() + timeout;
    }
    int wait = limited ? pollMs(timeoutEnd - now) : -1;
    if (hasDeadline) wait = shorterWait(wait, pollMs(mDeadline - now));
    if (mCancelFlag) wait = shorterWait(wait, kCancelCheckMs);
    pollfd p{mFd.get(), events, 0};
    const int rc = ::poll(&p, 1, wait);
    if (rc > 0) return true;
    if (rc < 0 && errno != EINTR) return fail(errno);
    // A signal ends a wait that nothing else would end; bounded waits resume.
    if (rc < 0 && !limited && !hasDeadline && !mCancelFlag) return fail(EINTR);
  }
}

void TCPSocket::connect(const std::string& host, int port, long timeoutMs) {
  if (mFd.valid()) throw exception("socket already open");
  if (mConnector) {
    mFd = mConnector->connect(host, port, timeoutMs);
    return;
  }
  // Close-on-exec from birth (no fork can inherit it); non-blocking until
  // connected, so that the wait happens in poll where its limits apply.
  mFd = System::FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!mFd.valid()) failAndClose(errno, "couldn't create client socket: ");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  try {
    addr.sin_addr = addressesOf(host).front();
  } catch (const exception& e) {  // the host does not resolve
    failAndClose(e.what());
  }
  if (::connect(mFd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 &&
      !System::errorMeansInProgress()) {
    mLastError = errno;
    failAndClose("couldn't connect to server");
  }
  if (!await(POLLIN | POLLOUT, static_cast<int>(timeoutMs), false)) {
    if (mLastError == ECANCELED) failAndClose("couldn't connect to server: cancelled");
    if (mLastError == ETIMEDOUT || mLastError == EINTR) {
      failAndClose("couldn't connect to server: timed out");
    }
    failAndClose(mLastError, "select failed: ");
  }
  int pending = 0;
  socklen_t len = sizeof pending;
  if (::getsockopt(mFd.get(), SOL_SOCKET, SO_ERROR, &pending, &len) < 0) {
    failAndClose(errno, "Internal socket error: ");
  }
  if (pending != 0) failAndClose(pending, "couldn't connect to server:  ");
  if (System::setNonBlocking(mFd.get(), 0) < 0) {
    const int error = errno;
    failAndClose(error, format("couldn't reset socket to Blocking \"%.60s\": ", host.c_str()));
  }
}

void TCPSocket::listen(const std::string& address, int port, int backlog) {
  if (mFd.valid()) throw exception("socket already open");
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_ANY);
  if (!address.empty() && !parseDotted(address, addr.sin_addr)) {
    throw exception(format("invalid listen address \"%.60s\"", address.c_str()));
  }
  mFd = System::FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!mFd.valid()) failAndClose(errno, "couldn't create server socket: ");
  const int on = 1;
  if (::setsockopt(mFd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0 ||
      ::bind(mFd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
    const int error = errno;
    failAndClose(error, format("couldn't bind to %.60s:%d: ", address.c_str(), port));
  }
  if (::listen(mFd.get(), backlog) < 0) {
    const int error = errno;
    failAndClose(error, format("couldn't listen on %.60s:%d: ", address.c_str(), port));
  }
}

std::unique_ptr<TCPSocket> TCPSocket::accept(int timeoutMs) {
  if (!mFd.valid()) throw exception("accept on a closed socket");
  if (!await(POLLIN, timeoutMs, false)) {
    if (mLastError == ETIMEDOUT || mLastError == ECANCELED || mLastError == EINTR) return nullptr;
    throw exception(format("select failed: %.150s", errorText(mLastError).c_str()));
  }
  const int fd = ::accept4(mFd.get(), nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) {
    mLastError = errno;
    // The peer may have given up between poll and accept, or a signal came.
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return nullptr;
    throw exception(format("couldn't accept connection: %.150s", errorText(errno).c_str()));
  }
  return std::make_unique<TCPSocket>(fd);
}

void TCPSocket::close() {
  // The layer may still talk to the peer on its way out.
  mSecureSocket.reset();
  mFd.close();
}

void TCPSocket::shutdown(bool reset) {
  if (!mFd.valid()) return;
  if (reset) {
    const linger abortive{1, 0};
    ::setsockopt(mFd.get(), SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
  }
  ::shutdown(mFd.get(), SHUT_RDWR);
}

std::unique_ptr<TCPSocket> TCPSocket::duplicate() const {
  if (!mFd.valid()) return nullptr;
  const int fd = ::fcntl(mFd.get(), F_DUPFD_CLOEXEC, 0);
  if (fd < 0) return nullptr;
  return std::make_unique<TCPSocket>(fd);
}

bool TCPSocket::isGood() {
  if (!mFd.valid()) return false;
  char byte;
  ssize_t n;
  do {
    n = ::recv(mFd.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  if (n >= 0) return n > 0;  // 0: orderly shutdown by the peer
  return errno == EAGAIN || errno == EWOULDBLOCK || fail(errno);
}

bool TCPSocket::secureHasBufferedData() {
  if (!mSecureSocket) return false;
  Mutex::Lock lock(secureLayerMutex());
  return mSecureSocket->hasBufferedData();
}

bool TCPSocket::isReadable(int ms) {
  if (!mFd.valid()) return false;
  if (secureHasBufferedData()) return true;
  if (!await(POLLIN, ms, false)) return false;
  mDrained = false;  // the next read need not wait first
  return true;
}

int TCPSocket::read(char* buffer, int length) {
  if (!mFd.valid()) {
    mLastError = EBADF;
    return -1;
  }
  const Ticks start = Ticks::currentTime();
  ssize_t n;
  if (mSecureSocket) {
    if (!secureHasBufferedData() && !await(POLLIN, mReadTimeout, true)) return -1;
    n = mSecureSocket->read(buffer, length);
  } else {
    // After a read that emptied the socket, wait first: trying at once
    // would mostly cost a call for nothing.
    if (limitReached()) return -1;
    if (mDrained && !await(POLLIN, mReadTimeout, true)) return -1;
    for (;;) {
      n = ::recv(mFd.get(), buffer, static_cast<size_t>(length), MSG_DONTWAIT);
      if (n >= 0 || (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)) break;
      if (errno != EINTR && !await(POLLIN, mReadTimeout, true)) return -1;
    }
    if (n < 0) mLastError = errno;
    mDrained = n >= 0 && n < length;
  }
  mReadTicks += Ticks::currentTime() - start;
  if (n > 0) {
    mReadBytes += n;
    if (mSpy) mSpy->onRead(buffer, static_cast<int>(n));
  }
  return static_cast<int>(n);
}

int TCPSocket::write(const char* first, int firstLength, const char* second,
                     int secondLength) {
  const int length = firstLength + secondLength;
  if (!mFd.valid()) {
    mLastError = EBADF;
    return 0;
  }
  const Ticks start = Ticks::currentTime();
  // A bounded write waits in poll, not in send; a plain socket waits only
  // when it is full.
  const bool bounded = writesBounded();
  int done = 0;
  bool wait = mSecureSocket != nullptr;
  if (bounded && !wait && limitReached()) return 0;
  while (done < length) {
    if (bounded && wait && !await(POLLOUT, mWriteTimeout, true)) break;
    wait = mSecureSocket != nullptr;
    ssize_t n;
    iovec parts[2];
    int count = 0;
    if (done < firstLength) {
      parts[count++] = iovec{const_cast<char*>(first) + done, size_t(firstLength - done)};
    }
    const int secondDone = std::max(0, done - firstLength);
    if (secondDone < secondLength) {
      parts[count++] = iovec{const_cast<char*>(second) + secondDone,
                             size_t(secondLength - secondDone)};
    }
    if (mSecureSocket) {
      n = mSecureSocket->write(static_cast<const char*>(parts[0].iov_base),
                               static_cast<int>(parts[0].iov_len));
    } else {
      // MSG_NOSIGNAL: a vanished peer is an error return, never a SIGPIPE.
      msghdr message{};
      message.msg_iov = parts;
      message.msg_iovlen = static_cast<size_t>(count);
      n = ::sendmsg(mFd.get(), &message, MSG_NOSIGNAL | (bounded ? MSG_DONTWAIT : 0));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && bounded && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        wait = true;
        continue;
      }
    }
    if (n <= 0) {
      mLastError = n < 0 ? errno : EPIPE;
      break;
    }
    done += static_cast<int>(n);
  }
  mWriteTicks += Ticks::currentTime() - start;
  mWriteBytes += done;
  if (mSpy && done > 0) {
    if (firstLength > 0) mSpy->onWrite(first, std::min(done, firstLength));
    if (done > firstLength) mSpy->onWrite(second, done - firstLength);
  }
  return done;
}

bool TCPSocket::sendFile(int fd, int64_t offset, int64_t count, int blockSize,
                         const BlockSent& afterBlock) {
  if (!mFd.valid()) return fail(EBADF);
  // A secure layer or a spy must see the bytes, which the kernel moves here.
  if (mSecureSocket || mSpy) return fail(EOPNOTSUPP);
  // sendfile takes no MSG_DONTWAIT: a bounded send is non-blocking per call.
  const bool bounded = writesBounded();
  std::optional<NonBlockingScope> nonBlocking;
  if (bounded && !nonBlocking.emplace(mFd.get()).active()) return fail(EOPNOTSUPP);
  SigPipeGuard sigPipe;
  for (int64_t done = 0; done < count;) {
    const int block = static_cast<int>(std::min<int64_t>(blockSize, count - done));
    const Ticks start = Ticks::currentTime();
    int sent = 0;
    int error = 0;
    if (bounded && limitReached()) error = mLastError;
    while (sent < block && error == 0) {
      off_t at = static_cast<off_t>(offset + done + sent);
      const ssize_t n = ::sendfile(mFd.get(), fd, &at, static_cast<size_t>(block - sent));
      if (n > 0) {
        sent += static_cast<int>(n);
      } else if (n == 0) {
        error = ENODATA;  // the file ended
      } else if (bounded && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        if (!await(POLLOUT, mWriteTimeout, true)) error = mLastError;
      } else if (errno != EINTR) {
        error = errno;
      }
    }
    mWriteTicks += Ticks::currentTime() - start;
    mWriteBytes += sent;
    done += sent;
    if (error != 0) {
      if (error == EPIPE) sigPipe.takeBack();
      return fail(done == 0 && refusesFile(error) ? EOPNOTSUPP : error);
    }
    if (afterBlock && !afterBlock(block)) break;
  }
  return true;
}

bool TCPSocket::setKeepAlive(bool on) {
  if (!mFd.valid()) return fail(EBADF);
  const int value = on ? 1 : 0;
  return ::setsockopt(mFd.get(), SOL_SOCKET, SO_KEEPALIVE, &value, sizeof value) == 0 ||
         fail(errno);
}

std::string TCPSocket::getHostName() {
  char name[256] = {0};
  if (::gethostname(name, sizeof name - 1) < 0) return std::string();
  return name;
}

std::string TCPSocket::getHostIP(const std::string& host) { return getHostIPList(host).front(); }

std::vector<std::string> TCPSocket::getHostIPList(const std::string& host) {
  std::vector<std::string> result;
  for (const in_addr& a : addressesOf(host)) result.push_back(dotted(a));
  return result;
}

std::string TCPSocket::getRemoteHost() const {
  sockaddr_in addr{};
  return addressOf(mFd, false, addr) ? dotted(addr.sin_addr) : "";
}

int TCPSocket::getRemotePort() const {
  sockaddr_in addr{};
  return addressOf(mFd, false, addr) ? ntohs(addr.sin_port) : -1;
}

int TCPSocket::getListenerPort() const {
  sockaddr_in addr{};
  return addressOf(mFd, true, addr) ? ntohs(addr.sin_port) : -1;
}

int TCPSocket::getSocketError() const {
  int pending = 0;
  socklen_t len = sizeof pending;
  if (!mFd.valid()) return EBADF;
  if (::getsockopt(mFd.get(), SOL_SOCKET, SO_ERROR, &pending, &len) < 0) return errno;
  return pending;
}

std::string TCPSocket::getErrorMessage() const { return errorText(mLastError); }

std::shared_ptr<TCPSpy> TCPSocket::replaceSpy(std::shared_ptr<TCPSpy> spy) {
  mSpy.swap(spy);
  return spy;
}

void TCPSocket::setSecureLayer(std::unique_ptr<TCPSecureLayer> layer) {
  mSecureSocket = std::move(layer);
}
