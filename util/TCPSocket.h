// TCPSocket: one IPv4 TCP socket, either side of a connection.
//
// The client side connects with a bounded wait; the server side binds,
// listens and accepts. Reads and writes honour optional time-outs, writes
// send everything or report failure, and an optional observer (TCPSpy) sees
// the bytes; file data can also go to the peer straight from the file
// (sendFile). Every wait can also be bounded by a deadline and ended from
// outside by a cancel flag; these settings belong to the object and survive
// close() and connect(). Connect and listen failures raise
// TCPSocket::exception; reads and writes report failure by return value so
// that stream buffers can map it to end of file, and getLastError() tells
// ETIMEDOUT (time-out, deadline) and ECANCELED apart from a lost peer. A
// socket object is used by one thread at a time, except that shutdown() may
// be called, and the cancel flag set, from another thread.
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

// An encryption layer stacked on a connected socket. When one is installed,
// reads, writes and readiness go through it instead of the plain descriptor.
class TCPSecureLayer {
 public:
  virtual ~TCPSecureLayer() = default;
  // Same contract as TCPSocket::read / write.
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
  // Two connected local stream descriptors (close-on-exec), for a peer
  // inside this process. Throws exception when there are none left.
  static std::pair<System::FileDescriptor, System::FileDescriptor> pair();
  ~TCPSocket();  // drops the secure layer, then closes the descriptor
  TCPSocket(const TCPSocket&) = delete;
  TCPSocket& operator=(const TCPSocket&) = delete;

  // Connects to host (dotted address or name) and port, waiting at most
  // timeoutMs for the connection (and never past the deadline or a cancel),
  // or through the connector when one is set. The descriptor is
  // close-on-exec and blocking afterwards. Throws exception on any failure.
  void connect(const std::string& host, int port, long timeoutMs);
  // Where connect() goes from now on (null: TCP). Not owned: it must
  // outlive the socket's connects.
  void setConnector(Connector* connector) { mConnector = connector; }

  // Binds to address ("" or "0.0.0.0" for every interface) and port (0 picks
  // an ephemeral port, see getListenerPort) with SO_REUSEADDR and listens.
  // Throws exception on failure.
  void listen(const std::string& address, int port, int backlog = 64);

  // Waits up to timeoutMs (-1: no limit) for a connection on a listening
  // socket. Returns the connected socket (close-on-exec), or null when the
  // wait ended without one (time-out, deadline, cancel or an interrupting
  // signal). Throws exception when the socket is not listening or accept
  // fails otherwise.
  std::unique_ptr<TCPSocket> accept(int timeoutMs = -1);

  // Closes the descriptor (and drops the secure layer); safe when closed.
  void close();
  // Shuts both directions down without closing the descriptor, so that a
  // read blocked in another thread returns at once. With reset, the close
  // that follows resets the connection, so that a peer blocked writing to us
  // fails at once instead of at its next window probe.
  void shutdown(bool reset = false);
  // A second socket object on the same connection (a duplicated,
  // close-on-exec descriptor) with none of this one's settings, so that one
  // thread may read through it while another writes through this one. Null
  // when closed or out of descriptors.
  std::unique_ptr<TCPSocket> duplicate() const;

  // True while the descriptor is open (the peer may have gone away).
  bool isConnected() const { return mFd.valid(); }
  // True when connected and the peer has not closed its side.
  bool isGood();
  // True when a read would not block within ms milliseconds (-1: no limit).
  bool isReadable(int ms);

  // Reads at most length bytes after waiting for readability up to the read
  // time-out. Returns the count, 0 when the peer closed, -1 on failure or
  // time-out (getLastError tells which error).
  int read(char* buffer, int length);
  // Writes all length bytes (retrying partial sends). Returns the number
  // written; less than length means failure.
  int write(const char* buffer, int length) { return write(buffer, length, nullptr, 0); }
  // The same for first followed by second, in one send where the socket
  // takes them (a header and the bulk data after it cost one call).
  int write(const char* first, int firstLength, const char* second, int secondLength);

  // Told the size of each block sendFile() has sent; false stops the send.
  using BlockSent = std::function<bool(int bytes)>;
  // Sends count bytes of the file fd from offset with sendfile(2): the
  // kernel takes them from the file cache without copying them through this
  // process, and the file's own position does not move. They go in blocks of
  // at most blockSize bytes (short transfers are continued), afterBlock (if
  // any) being called after each. Every wait is bounded as in write() (write
  // time-out, stall handler, deadline, cancel flag), and a vanished peer
  // raises no SIGPIPE. Returns true when every byte went or afterBlock
  // stopped the send; false on failure, with getLastError() ENODATA when the
  // file ended first (its bytes up to there were sent), EOPNOTSUPP when
  // nothing was sent because the bytes cannot go this way (a secure layer or
  // a spy must see them, or sendfile does not take this file: write() them
  // instead), else as for write(). For the call's length SIGPIPE is blocked
  // in this thread and, when waits are bounded, the descriptor (shared with
  // any duplicate) is non-blocking; afterBlock must not use this socket.
  bool sendFile(int fd, int64_t offset, int64_t count, int blockSize, const BlockSent& afterBlock);

  // Milliseconds that read() waits for data; -1 (the default) waits for ever.
  void setReadTimeout(int ms) { mReadTimeout = ms; }
  int getReadTimeout() const { return mReadTimeout; }
  // Writes wait at most ms (-1, the default: no limit) for the peer to take
  // more bytes; a write that makes no progress for that long fails with
  // getLastError() == ETIMEDOUT. Partial progress restarts the wait.
  void setWriteTimeout(int ms) { mWriteTimeout = ms; }
  int getWriteTimeout() const { return mWriteTimeout; }
  // No wait (connect, accept, read, write, isReadable) goes past deadline,
  // whatever the time-outs: once it has passed the call fails with
  // ETIMEDOUT. A default Ticks() clears it.
  void setDeadline(const Ticks& deadline) { mDeadline = deadline; }
  const Ticks& getDeadline() const { return mDeadline; }
  // Waits check *flag at least every 100 ms and fail with ECANCELED once it
  // is true. The flag must outlive the socket's use; null removes it.
  void setCancelFlag(const std::atomic<bool>* flag) { mCancelFlag = flag; }
  // Called when a read or write wait has run its whole read or write
  // time-out without progress (not at the deadline, not when cancelled);
  // returning true waits one more time-out, false fails the call with
  // ETIMEDOUT. An empty handler always fails.
  void setStallHandler(std::function<bool()> handler) { mStallHandler = std::move(handler); }

  // Enables TCP keep-alive probes so that a silently dead peer is noticed.
  // Returns false (and records the error) on failure.
  bool setKeepAlive(bool on);

  // The local host's name.
  static std::string getHostName();
  // The first IPv4 address of host in dotted form; a dotted address is
  // returned unchanged. Throws exception when the name does not resolve.
  static std::string getHostIP(const std::string& host);
  // Every IPv4 address of host in dotted form. Throws like getHostIP.
  static std::vector<std::string> getHostIPList(const std::string& host);

  // The peer's dotted address and port of a connected socket ("" / -1 when
  // unknown).
  std::string getRemoteHost() const;
  int getRemotePort() const;
  // The local port of a bound socket (-1 when unknown).
  int getListenerPort() const;

  // The socket's pending error (SO_ERROR), or the query's errno on failure.
  int getSocketError() const;
  // The last system error number recorded by a failed call on this socket.
  int getLastError() const { return mLastError; }
  // The system text for getLastError().
  std::string getErrorMessage() const;

  // Installs an observer; returns the previous one.
  std::shared_ptr<TCPSpy> replaceSpy(std::shared_ptr<TCPSpy> spy);
  // Installs (or with null removes) the secure layer of a connected socket.
  void setSecureLayer(std::unique_ptr<TCPSecureLayer> layer);

  int64_t getReadBytes() const { return mReadBytes; }
  int64_t getWriteBytes() const { return mWriteBytes; }
  // Time spent inside read(), write() and sendFile() (without afterBlock).
  Ticks getReadTicks() const { return mReadTicks; }
  Ticks getWriteTicks() const { return mWriteTicks; }

 private:
  bool secureHasBufferedData();
  [[noreturn]] void failAndClose(const std::string& message);
  // The same after recording error, the message being the printf-style
  // prefix followed by the error's text.
  [[noreturn]] void failAndClose(int error, const char* fmt, ...)
      __attribute__((format(printf, 3, 4)));
  // True when writes must not block inside send() because some limit or the
  // cancel flag has to be able to end them.
  bool writesBounded() const;
  // Waits until the descriptor reports one of events, for at most timeoutMs
  // (-1: no limit) and within the deadline and the cancel flag; a stallable
  // wait asks the stall handler when timeoutMs runs out. Returns false with
  // mLastError set (ETIMEDOUT, ECANCELED, EINTR or poll's error) when the
  // wait ended without the events.
  bool await(short events, int timeoutMs, bool stallable);
  // True (with mLastError set) when the cancel flag is up or the deadline
  // has passed.
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
