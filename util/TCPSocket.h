// TCPSocket: one IPv4 TCP socket, either side of a connection. Every wait is
// bounded by the time-outs, a deadline and a cancel flag, settings that
// survive close() and connect(). Connect and listen failures raise
// TCPSocket::exception; reads and writes report failure by return value, and
// getLastError() tells ETIMEDOUT and ECANCELED apart from a lost peer. One
// thread at a time, except shutdown() and the cancel flag.
#ifndef HIVE_UTIL_TCPSOCKET_H_
#define HIVE_UTIL_TCPSOCKET_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "util/Connector.h"
#include "util/System.h"
#include "util/Ticks.h"

// Observer of the bytes moving through a socket (tracing, statistics).
class TCPSpy {
 public:
  virtual ~TCPSpy() = default;
  virtual void onRead(const char* data, int length) = 0;
  virtual void onWrite(const char* data, int length) = 0;
};

// An encryption layer through which reads, writes and readiness then go.
class TCPSecureLayer {
 public:
  virtual ~TCPSecureLayer() = default;
  virtual int read(char* buffer, int length) = 0;
  virtual int write(const char* buffer, int length) = 0;
  // True when decrypted bytes are already buffered inside the layer.
  virtual bool hasBufferedData() = 0;
};

class TCPSocket {
 public:
  // Connect, listen and accept failures; what() is the user-facing text.
  class exception : public std::runtime_error {
   public:
    explicit exception(const std::string& message)
        : std::runtime_error(message) {}
  };

  TCPSocket() = default;
  // Adopts an already connected descriptor (the socket now owns it).
  explicit TCPSocket(int fd) : mFd(fd) {}
  // Two connected local stream descriptors (close-on-exec). Throws exception.
  static std::pair<System::FileDescriptor, System::FileDescriptor> pair();
  ~TCPSocket();  // drops the secure layer, then closes the descriptor
  TCPSocket(const TCPSocket&) = delete;
  TCPSocket& operator=(const TCPSocket&) = delete;

  // Connects to host (dotted address or name) and port within timeoutMs, or
  // through the connector when one is set; blocking afterwards. Throws.
  void connect(const std::string& host, int port, long timeoutMs);
  // Where connect() goes from now on (null: TCP); not owned.
  void setConnector(Connector* connector) { mConnector = connector; }

  // Binds to address ("" for every interface) and port (0: ephemeral) with
  // SO_REUSEADDR and listens. Throws exception on failure.
  void listen(const std::string& address, int port, int backlog = 64);

  // Waits up to timeoutMs (-1: no limit) for a connection; null when the wait
  // ended without one. Throws exception when accept fails otherwise.
  std::unique_ptr<TCPSocket> accept(int timeoutMs = -1);

  // Closes the descriptor (and drops the secure layer); safe when closed.
  void close();
  // Shuts both directions down (ending a read blocked in another thread); with
  // reset the close that follows resets the connection.
  void shutdown(bool reset = false);
  // A second socket on the same connection (a duplicated descriptor) without
  // this one's settings; null when closed or out of descriptors.
  std::unique_ptr<TCPSocket> duplicate() const;

  // True while the descriptor is open (the peer may have gone away).
  bool isConnected() const { return mFd.valid(); }
  // True when connected and the peer has not closed its side.
  bool isGood();
  // True when a read would not block within ms milliseconds (-1: no limit).
  bool isReadable(int ms);

  // At most length bytes within the read time-out: the count, 0 when the peer
  // closed, -1 on failure or time-out.
  int read(char* buffer, int length);
  // Writes all length bytes; a result below length means failure.
  int write(const char* buffer, int length) { return write(buffer, length, nullptr, 0); }
  // The same for first followed by second, in one send where possible.
  int write(const char* first, int firstLength, const char* second, int secondLength);

  // Told the size of each block sendFile() has sent; false stops the send.
  using BlockSent = std::function<bool(int bytes)>;
  // Sends count bytes of file fd from offset with sendfile(2) (the file's
  // position stays) in blocks of at most blockSize, calling afterBlock after
  // each; waits are bounded as in write() and raise no SIGPIPE. True when
  // every byte went or afterBlock stopped; false with getLastError() ENODATA
  // when the file ended first, EOPNOTSUPP when nothing went because the bytes
  // cannot go this way (write() them), else as for write(). While it runs the
  // descriptor may be non-blocking, so afterBlock must not use this socket.
  bool sendFile(int fd, int64_t offset, int64_t count, int blockSize, const BlockSent& afterBlock);

  // Milliseconds that read() waits for data; -1 (the default) waits for ever.
  void setReadTimeout(int ms) { mReadTimeout = ms; }
  // A write that makes no progress for ms (-1, the default: no limit) fails
  // with ETIMEDOUT; partial progress restarts the wait.
  void setWriteTimeout(int ms) { mWriteTimeout = ms; }
  // No wait goes past deadline (then ETIMEDOUT); a default Ticks() clears it.
  void setDeadline(const Ticks& deadline) { mDeadline = deadline; }
  const Ticks& getDeadline() const { return mDeadline; }
  // Waits fail with ECANCELED within 100 ms of *flag becoming true.
  void setCancelFlag(const std::atomic<bool>* flag) { mCancelFlag = flag; }
  // Asked when a read or write has waited its whole time-out without progress:
  // true waits one more time-out, false (or no handler) fails with ETIMEDOUT.
  void setStallHandler(std::function<bool()> handler) { mStallHandler = std::move(handler); }

  // TCP keep-alive probes; false (error recorded) on failure.
  bool setKeepAlive(bool on);

  // The local host's name.
  static std::string getHostName();
  // The first IPv4 address of host, dotted. Throws when it does not resolve.
  static std::string getHostIP(const std::string& host);
  // Every IPv4 address of host in dotted form. Throws like getHostIP.
  static std::vector<std::string> getHostIPList(const std::string& host);

  // The peer's dotted address and port ("" / -1 when unknown).
  std::string getRemoteHost() const;
  int getRemotePort() const;
  // The local port of a bound socket (-1 when unknown).
  int getListenerPort() const;

  // SO_ERROR, or the query's errno.
  int getSocketError() const;
  // The error number of the last failed call.
  int getLastError() const { return mLastError; }
  // The system text for getLastError().
  std::string getErrorMessage() const;

  // Installs an observer; returns the previous one.
  std::shared_ptr<TCPSpy> replaceSpy(std::shared_ptr<TCPSpy> spy);
  // Installs (or with null removes) the secure layer of a connected socket.
  void setSecureLayer(std::unique_ptr<TCPSecureLayer> layer);

  int64_t getReadBytes() const { return mReadBytes; }
  int64_t getWriteBytes() const { return mWriteBytes; }
  // Time spent inside read(), and inside write() and sendFile().
  Ticks getReadTicks() const { return mReadTicks; }
  Ticks getWriteTicks() const { return mWriteTicks; }

 private:
  bool secureHasBufferedData();
  [[noreturn]] void failAndClose(const std::string& message);
  // The same after recording error; the message is prefix + the error's text.
  [[noreturn]] void failAndClose(int error, const std::string& prefix);
  // True when some limit must be able to end a write, so send() must not block.
  bool writesBounded() const;
  // Waits for events up to timeoutMs (-1: none) and the other limits, asking
  // the stall handler when stallable; false with mLastError set.
  bool await(short events, int timeoutMs, bool stallable);
  // True (with mLastError set) when cancelled or past the deadline.
  bool limitReached();
  bool fail(int error);

  System::FileDescriptor mFd;  // invalid while closed
  std::unique_ptr<TCPSecureLayer> mSecureSocket;
  int mReadTimeout = -1;
  int mWriteTimeout = -1;
  Ticks mDeadline;
  const std::atomic<bool>* mCancelFlag = nullptr;
  Connector* mConnector = nullptr;
  std::function<bool()> mStallHandler;
  int mLastError = 0;
  std::shared_ptr<TCPSpy> mSpy;
  Ticks mReadTicks;
  Ticks mWriteTicks;
  bool mDrained = false;  // the last read left nothing behind
  int64_t mReadBytes = 0;
  int64_t mWriteBytes = 0;
};

#endif  // HIVE_UTIL_TCPSOCKET_H_
