// TCPRawStream: a bidirectional standard stream over one TCP socket, which it
// owns together with the stream buffer (TCPStreamBuf) between them. Failures
// show as stream states; closing and connecting again reuses the object.
#ifndef HIVE_UTIL_TCPRAWSTREAM_H_
#define HIVE_UTIL_TCPRAWSTREAM_H_

#include <functional>
#include <iostream>
#include <memory>
#include <string>

#include "util/TCPSocket.h"

class TCPStreamBuf;

class TCPRawStream : public std::iostream {
 public:
  // Unconnected; connect() or listen() later.
  TCPRawStream();
  // Over an already connected socket.
  explicit TCPRawStream(std::unique_ptr<TCPSocket> socket);
  // Connects at once, reads waiting up to readTimeoutMs. Throws.
  TCPRawStream(const std::string& host, int port, long timeoutMs, int readTimeoutMs = -1);
  // Unsent output is dropped: the peer may be gone and this must not block.
  ~TCPRawStream() override;
  TCPRawStream(const TCPRawStream&) = delete;
  TCPRawStream& operator=(const TCPRawStream&) = delete;

  // Drops buffered data and the stream state and connects afresh. Throws.
  void connect(const std::string& host, int port, long timeoutMs);
  // As TCPSocket::listen and accept.
  void listen(const std::string& address, int port, int backlog = 64);
  std::unique_ptr<TCPSocket> accept(int timeoutMs = -1) { return mSocket->accept(timeoutMs); }
  // Closes the connection, dropping unsent output and unread input.
  void close();

  bool isConnected() const { return mSocket->isConnected(); }
  // True when input is buffered or arrives within ms (-1: no limit).
  bool isReadable(int ms);

  // Checksummed block mode: a received block whose checksum differs sets
  // crcMismatch() and calls onMismatch; empty switches the mode off. Both
  // ends must agree before any data moves.
  void setCRCMode(std::function<void()> onMismatch);
  bool crcMismatch() const;

  TCPSocket& socket() { return *mSocket; }
  TCPStreamBuf& streamBuf() { return *mTCPStreamBuf; }

 private:
  std::unique_ptr<TCPStreamBuf> mTCPStreamBuf;
  std::unique_ptr<TCPSocket> mSocket;
};

#endif  // HIVE_UTIL_TCPRAWSTREAM_H_
