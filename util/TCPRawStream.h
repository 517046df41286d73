// TCPRawStream: a bidirectional standard stream over one TCP socket, which it
// owns together with the stream buffer (TCPStreamBuf) between them.
//
// Failures show as stream states (badbit on a lost connection); the derived
// TCPStream raises them as LinkLost. Closing and connecting again
// on the same object resets the buffers and the stream state, so one object
// can be reused for a fresh connection.
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
  // Over an already connected socket (e.g. one returned by accept()).
  explicit TCPRawStream(std::unique_ptr<TCPSocket> socket);
  // Connects at once (see TCPSocket::connect); readTimeoutMs bounds every
  // wait for incoming data (-1: no limit). Throws TCPSocket::exception.
  TCPRawStream(const std::string& host, int port, long timeoutMs, int readTimeoutMs = -1);
  ~TCPRawStream() override;
  TCPRawStream(const TCPRawStream&) = delete;
  TCPRawStream& operator=(const TCPRawStream&) = delete;

  // Drops buffered data, clears the stream state and connects the socket
  // afresh (closing any previous connection). Throws TCPSocket::exception.
  void connect(const std::string& host, int port, long timeoutMs);
  // Binds and listens (see TCPSocket::listen).
  void listen(const std::string& address, int port, int backlog = 64);
  // Waits for a connection on a listening stream (see TCPSocket::accept).
  std::unique_ptr<TCPSocket> accept(int timeoutMs = -1);
  // Closes the connection, dropping unsent output and unread input.
  void close();

  bool isConnected() const;
  // True when input is already buffered or the socket becomes readable
  // within ms milliseconds (-1: no limit).
  bool isReadable(int ms);

  // Checksummed block mode: each flushed block travels with its length and
  // CRC-32C; a received block whose checksum differs sets crcMismatch() and
  // calls onMismatch. An empty callback switches the mode off. Both ends
  // must agree on the mode before any data moves.
  void setCRCMode(std::function<void()> onMismatch);
  bool crcMismatch() const;

  TCPSocket& socket() { return *mSocket; }
  TCPStreamBuf& streamBuf() { return *mTCPStreamBuf; }

 private:
  std::unique_ptr<TCPStreamBuf> mTCPStreamBuf;
  std::unique_ptr<TCPSocket> mSocket;
};

#endif  // HIVE_UTIL_TCPRAWSTREAM_H_
