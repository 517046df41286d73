#include "support/RawClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "hopper/hopperMisc.h"
#include "support/FakeDaemon.h"

RawClient::RawClient(const std::string& source, const std::string& address, int port,
                     int timeoutMs)
    : mTimeoutMs(timeoutMs) {
  sockaddr_in from{}, to{};
  from.sin_family = to.sin_family = AF_INET;
  to.sin_port = htons(uint16_t(port));
  if (inet_pton(AF_INET, source.c_str(), &from.sin_addr) != 1 ||
      inet_pton(AF_INET, address.c_str(), &to.sin_addr) != 1) {
    return;
  }
  mFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (mFd >= 0 && (::bind(mFd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
                   ::connect(mFd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0)) {
    close();
  }
}

RawClient::~RawClient() { close(); }

void RawClient::close() {
  if (mFd >= 0) ::close(mFd);
  mFd = -1;
}

bool RawClient::send(const std::string& bytes) {
  size_t done = 0;
  while (mFd >= 0 && done < bytes.size()) {
    const ssize_t n = ::send(mFd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += size_t(n);
  }
  return mFd >= 0;
}

bool RawClient::readFull(char* buffer, size_t n) {
  for (size_t done = 0; done < n;) {
    pollfd p{mFd, POLLIN, 0};
    if (mFd < 0 || ::poll(&p, 1, mTimeoutMs) <= 0) return !(mFailed = true);
    const ssize_t got = ::recv(mFd, buffer + done, n - done, 0);
    if (got <= 0) return !(mFailed = true);
    done += size_t(got);
  }
  return true;
}

int RawClient::readInt32() {
  unsigned char bytes[4];
  if (!readFull(reinterpret_cast<char*>(bytes), 4)) return -1;
  return int(uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 | uint32_t(bytes[2]) << 8 |
             bytes[3]);
}

long RawClient::readInt64() {
  const long high = readInt32(), low = readInt32();
  return mFailed ? -1 : long(uint64_t(high) << 32 | uint32_t(low));
}

std::string RawClient::readString() {
  const int length = readInt32();
  if (length < 0 || length > (1 << 20)) return std::string();
  std::string text(size_t(length), '\0');
  if (length > 0 && !readFull(&text[0], text.size())) return std::string();
  return text;
}

bool RawClient::handshake() {
  send(WireBytes().i32(C2H_NEW_GET_VERSION).i32(kHopperProtocolVersion).str("raw test client"));
  const bool ok = readString() == "OK";
  return readInt32() == kHopperProtocolVersion && ok;
}

bool RawClient::closedWithin(int timeoutMs) {
  char byte;
  pollfd p{mFd, POLLIN, 0};
  return mFd >= 0 && ::poll(&p, 1, timeoutMs) > 0 && ::recv(mFd, &byte, 1, MSG_DONTWAIT) == 0;
}
