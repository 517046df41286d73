#include "util/System.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <utility>

extern char** environ;

namespace System {

const std::vector<int> sInteractiveShutdownSignals = {SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,
                                                      SIGXCPU, SIGXFSZ, SIGPWR};
const std::vector<int> sDaemonShutdownSignals = {SIGINT,  SIGQUIT, SIGTERM,
                                                 SIGXCPU, SIGXFSZ, SIGPWR};

OSID makeOSID(const char* name) {
  if (name == nullptr) return OS_NONE;
  if (strcasecmp(name, "windows") == 0) return OS_WIN32;
  if (strcasecmp(name, "solaris") == 0) return OS_SOLARIS;
  if (strcasecmp(name, "linux") == 0) return OS_LINUX;
  if (strcasecmp(name, "solarisx86") == 0) return OS_SOLARIS_X86;
  return OS_INVALID;
}

bool fileExists(const std::string& path, SymLinkMode mode) {
  if (mode == FOLLOW_SYMLINK) return ::access(path.c_str(), F_OK) == 0;
  return FileAttributes().stat(path, DONT_FOLLOW_SYMLINK);
}

int remove(const std::string& path, bool) {
  int rc;
  do {
    rc = ::remove(path.c_str());
  } while (rc != 0 && errno == EINTR);
  return rc == 0 || errno == ENOENT || errno == ENOTDIR ? 0 : -1;
}

bool move(const std::string& from, const std::string& to, bool) {
  return ::rename(from.c_str(), to.c_str()) == 0;
}

namespace {

// Runs attempt() up to maxAttempts times; on failure errno is the first one's.
bool retryOperation(const std::function<bool()>& attempt, int maxAttempts, long intervalMs) {
  if (attempt()) return true;
  const int firstError = errno;
  for (int i = 1; i < maxAttempts; ++i) {
    if (attempt()) return true;
    sleep(intervalMs);
  }
  errno = firstError;
  return false;
}

}  // namespace

bool retryRemove(const std::string& path, bool force, int maxAttempts, long intervalMs) {
  return retryOperation([&] { return remove(path, force) == 0; }, maxAttempts, intervalMs);
}

bool retryMove(const std::string& from, const std::string& to, bool force, int maxAttempts,
               long intervalMs) {
  return retryOperation([&] { return move(from, to, force); }, maxAttempts, intervalMs);
}

bool makeDirectory(const std::string& path, int mode) {
  return ::mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0;
}

bool removeFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }

bool removeDirectory(const std::string& path) { return ::rmdir(path.c_str()) == 0; }

bool changeMode(const std::string& path, int mode) {
  return ::chmod(path.c_str(), static_cast<mode_t>(mode)) == 0;
}

namespace {

// The stream buffer of make_ofstream: a fixed buffer in front of write(2), on
// a descriptor opened as the caller chose (close-on-exec in particular).
class OutputBuffer : public std::streambuf {
 public:
  explicit OutputBuffer(FileDescriptor fd) : mFd(std::move(fd)) {
    setp(mData, mData + sizeof mData);
  }
  ~OutputBuffer() override { writeOut(); }
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;

  bool isOpen() const { return mFd.valid(); }

 protected:
  int_type overflow(int_type c) override {
    if (!writeOut()) return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
      *pptr() = traits_type::to_char_type(c);
      pbump(1);
    }
    return traits_type::not_eof(c);
  }
  int sync() override { return writeOut() ? 0 : -1; }
  pos_type seekoff(off_type offset, std::ios::seekdir dir, std::ios::openmode which) override {
    if ((which & std::ios::out) == 0 || !writeOut()) return pos_type(off_type(-1));
    const int whence = dir == std::ios::beg ? SEEK_SET : dir == std::ios::cur ? SEEK_CUR : SEEK_END;
    return pos_type(off_type(seek(mFd.get(), offset, whence)));
  }
  pos_type seekpos(pos_type position, std::ios::openmode which) override {
    return seekoff(off_type(position), std::ios::beg, which);
  }

 private:
  // Writes the buffered bytes; they are dropped even when that fails, as
  // the stream reports the failure.
  bool writeOut() {
    const size_t n = static_cast<size_t>(pptr() - pbase());
    setp(mData, mData + sizeof mData);
    return n == 0 || (mFd.valid() && writeAll(mFd.get(), mData, n));
  }

  FileDescriptor mFd;
  char mData[8192];
};

class OutputFile : public std::ostream {
 public:
  explicit OutputFile(FileDescriptor fd) : std::ostream(nullptr), mBuffer(std::move(fd)) {
    rdbuf(&mBuffer);  // also clears the bad state set by a null buffer
    if (!mBuffer.isOpen()) setstate(std::ios::failbit);
  }

 private:
  OutputBuffer mBuffer;
};

}  // namespace

std::unique_ptr<std::ostream> make_ofstream(const std::string& path, std::ios::openmode mode,
                                          bool closeOnExec) {
  int flags = O_WRONLY | O_CREAT | ((mode & std::ios::app) ? O_APPEND : O_TRUNC);
  if (closeOnExec) flags |= O_CLOEXEC;
  int raw;
  do {
    raw = ::open(path.c_str(), flags, 0666);
  } while (raw < 0 && errno == EINTR);
  FileDescriptor fd(raw);
  if (fd && (mode & std::ios::ate) && seek(fd.get(), 0, SEEK_END) < 0) fd.close();
  return std::make_unique<OutputFile>(std::move(fd));
}

std::unique_ptr<std::ifstream> make_ifstream(const std::string& path, std::ios::openmode mode) {
  return std::make_unique<std::ifstream>(path, mode | std::ios::in);
}

const char* getenv(const char* name) { return std::getenv(name); }

void sleep(long ms) {
  // Towards a fixed instant, so interruptions neither end nor stretch it.
  std::this_thread::sleep_until(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms));
}

void currentTimeAsString(std::string& out) {
  const time_t now = ::time(nullptr);
  struct tm local;
  char buf[64];
  localtime_r(&now, &local);
  const size_t n = std::strftime(buf, sizeof buf, "%Y/%m/%d %H:%M:%S", &local);
  out.assign(buf, n);
}

int runShellCommand(const std::string& command) {
  // The child starts with no signals blocked and default dispositions, even
  // though the caller keeps its shutdown signals blocked.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  pid_t pid;
  const int rc = posix_spawn(&pid, "/bin/sh", nullptr, &attr, const_cast<char**>(argv), environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    errno = rc;
    return -1;
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

namespace {

void doNothing(int) {}

// pthread_sigmask(how) for the one signal sig; errno set on failure.
bool changeThreadMask(int how, int sig) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, sig);
  const int rc = pthread_sigmask(how, &set, nullptr);
  if (rc != 0) errno = rc;
  return rc == 0;
}

// The process-wide disposition of sig, with no flags and an empty mask.
bool setDisposition(int sig, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  return ::sigaction(sig, &action, nullptr) == 0;
}

}  // namespace

bool disableSIGPIPE() { return changeThreadMask(SIG_BLOCK, SIGPIPE); }

bool ignoreSIGPIPE() { return setDisposition(SIGPIPE, SIG_IGN); }

bool trapUSR1ButDoNothing() {
  // No SA_RESTART: blocking calls return EINTR.
  return setDisposition(SIGUSR1, doNothing) && changeThreadMask(SIG_UNBLOCK, SIGUSR1);
}

std::string signalName(int sig) {
  if (static_cast<unsigned>(sig) == 0x80000000u) return "No signal";
  const char* text = ::strsignal(sig);
  if (text != nullptr) return text;
  return "Unknown signal " + std::to_string(sig);
}

int setNonBlocking(int fd, int on) {
  const int flags = ::fcntl(fd, F_GETFL, 0);
  if (flags < 0) return -1;
  const int wanted = on == 1 ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return ::fcntl(fd, F_SETFL, wanted) < 0 ? -1 : 0;
}

int fcntl(int fd, int cmd, long arg) { return ::fcntl(fd, cmd, arg); }

bool errorMeansInProgress() { return errno == EINPROGRESS || errno == EAGAIN; }

void InitSockets() {}

}  // namespace System
