#include "util/TCPRawStream.h"

#include "util/TCPStream.h"

TCPRawStream::TCPRawStream() : TCPRawStream(std::make_unique<TCPSocket>()) {}

TCPRawStream::TCPRawStream(std::unique_ptr<TCPSocket> socket)
    : std::iostream(nullptr), mSocket(std::move(socket)) {
  mTCPStreamBuf = std::make_unique<TCPStreamBuf>(mSocket.get());
  rdbuf(mTCPStreamBuf.get());  // also clears the bad state set by a null buffer
}

TCPRawStream::~TCPRawStream() = default;

TCPRawStream::TCPRawStream(const std::string& host, int port, long timeoutMs, int readTimeoutMs)
    : TCPRawStream() {
  mSocket->setReadTimeout(readTimeoutMs);
  mSocket->connect(host, port, timeoutMs);
}

void TCPRawStream::connect(const std::string& host, int port, long timeoutMs) {
  close();
  mSocket->connect(host, port, timeoutMs);
}

void TCPRawStream::listen(const std::string& address, int port, int backlog) {
  close();
  mSocket->listen(address, port, backlog);
}

void TCPRawStream::close() {
  mSocket->close();
  mTCPStreamBuf->reset();
  clear();
}

bool TCPRawStream::isReadable(int ms) {
  return mTCPStreamBuf->buffered() > 0 || mSocket->isReadable(ms);
}

void TCPRawStream::setCRCMode(std::function<void()> onMismatch) {
  mTCPStreamBuf->setCRCMode(std::move(onMismatch));
}

bool TCPRawStream::crcMismatch() const { return mTCPStreamBuf->crcMismatch(); }
