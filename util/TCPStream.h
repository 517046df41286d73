// TCPStreamBuf: the stream buffer between a standard stream and a TCPSocket.
// Input keeps up to 2920 bytes as put-back area and reads at most 2920 per
// refill; output is sent when the buffer is full or on flush. Large reads and
// writes bypass the buffers. In checksummed mode each flushed block is preceded
// by its length and CRC-32C, both big-endian 32-bit.
// TCPStream: the raw stream (TCPRawStream) whose every failure (lost
// connection, short write, end of file, time-out) raises LinkLost at once.
#ifndef HIVE_UTIL_TCPSTREAM_H_
#define HIVE_UTIL_TCPSTREAM_H_

#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "util/TCPRawStream.h"
#include "util/TCPSocket.h"

// The connection is gone: closed, reset, timed out, or a send failed.
class LinkLost : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class TCPStreamBuf : public std::streambuf {
 public:
  static const int kPutBackSize = 2920;
  static const int kBufSize = 2920;
  static const int kOutBufSize = 16384;
  static const int kCRCHeaderSize = 8;

  // The socket is not owned and must outlive its use through this buffer.
  explicit TCPStreamBuf(TCPSocket* socket);
  TCPStreamBuf(const TCPStreamBuf&) = delete;
  TCPStreamBuf& operator=(const TCPStreamBuf&) = delete;

  // Forgets buffered input and unsent output and the checksum progress.
  void reset();
  // Refills read up to size bytes; only while nothing is buffered.
  void setInputBufferSize(int size);
  // Sends output in blocks of up to size bytes; only while nothing is queued.
  void setOutputBufferSize(int size);
  // Installs the checksum mismatch callback; empty switches the mode off.
  void setCRCMode(std::function<void()> onMismatch);
  bool crcMode() const { return static_cast<bool>(mUseCRC); }
  bool crcMismatch() const { return mCRCMismatch; }
  // Bytes received and not yet consumed.
  std::streamsize buffered() const { return egptr() - gptr(); }
  // Bytes written and not yet sent.
  std::streamsize queued() const { return pptr() - pbase(); }

 protected:
  int_type underflow() override;
  int_type overflow(int_type c) override;
  int sync() override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;
  std::streamsize xsgetn(char* s, std::streamsize n) override;

 private:
  bool flushOutput();
  // Reads up to maxLength payload bytes; <= 0 on end of file or failure.
  int fillInput(char* dest, int maxLength);
  bool readBlockHeader();
  void keepPutBack(const char* end, std::streamsize count);
  // The link failed: LinkLost, which a stream without badbit in its
  // exception mask takes for badbit.
  [[noreturn]] static void lost(const char* what);
  // The same for a read that returned n <= 0.
  [[noreturn]] static void lostReading(int n);

  TCPSocket* mSocket;
  int mPutBackSize;
  int mBufSize;
  int mOutBufSize;
  std::vector<char> mBufferIn;   // put-back area, then data
  std::vector<char> mBufferOut;  // checksum header room, then data
  bool mCRCMismatch;
  std::function<void()> mUseCRC;
  uint32_t mExpectedCRC;
  uint32_t mActualCRC;
  uint32_t mBytesToSum;
};

class TCPStream : public TCPRawStream {
 public:
  TCPStream();
  explicit TCPStream(std::unique_ptr<TCPSocket> socket);
  // Connects at once; throws TCPSocket::exception on failure.
  TCPStream(const std::string& host, int port, long timeoutMs, int readTimeoutMs = -1);

  // How sendFile() ended.
  enum class FileSend {
    kDone,         // every byte went, or afterBlock stopped the send
    kUnavailable,  // nothing sent: the bytes cannot go this way, write() them
    kFileEnded,    // the file ended first; the bytes it had were sent
  };
  // Sends count bytes of file fd from offset after the output queued so far,
  // as TCPSocket::sendFile (kUnavailable in checksummed mode). A failed send
  // throws LinkLost.
  FileSend sendFile(int fd, int64_t offset, int64_t count, int blockSize,
                    const TCPSocket::BlockSent& afterBlock);

 private:
  void setExceptionMask();
};

#endif  // HIVE_UTIL_TCPSTREAM_H_
