// TCPStreamBuf: the stream buffer between a standard stream and a TCPSocket.
// TCPStream: the socket stream whose every failure (lost connection, short
// write, end of file, time-out) raises LinkLost at once, so protocol code
// reads and writes items without testing states, and callers tell a lost
// link from every other error by its type.
//
// Input keeps up to 2920 bytes already read as put-back area and reads at
// most 2920 new bytes per refill. Output is collected in a buffer and sent
// when it is full or on flush. Large writes and reads bypass the buffers (a
// large write goes in one send with the output queued before it) so bulk
// data is not copied twice, and file data can go straight from the file
// (TCPStream::sendFile). In checksummed mode every flushed block is preceded
// by an 8-byte header: the block length and its CRC-32C, both big-endian
// 32-bit.
#ifndef HIVE_UTIL_TCPSTREAM_H_
#define HIVE_UTIL_TCPSTREAM_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "util/TCPRawStream.h"
#include "util/TCPSocket.h"

// The connection is gone: closed or reset by the peer, timed out, or a send
// failed. The only exception a TCPStream raises for its link.
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
  // Refills read up to size bytes at once instead of kBufSize (a receiver
  // of framed bulk data then takes a frame's header and its data in one
  // call). Only while nothing is buffered.
  void setInputBufferSize(int size);
  // Collects up to size bytes of output before sending instead of
  // kOutBufSize, so that many small messages leave in fewer sends. Writes
  // of kOutBufSize bytes or more still go out at once. Only while nothing
  // is queued.
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
  // Reads up to maxLength payload bytes into dest, unwrapping checksummed
  // blocks. Returns the count, or <= 0 on end of file or failure.
  int fillInput(char* dest, int maxLength);
  bool readBlockHeader();
  void keepPutBack(const char* end, std::streamsize count);
  // The link failed. A stream whose exception mask holds badbit passes the
  // LinkLost on; one without it takes it for badbit (TCPRawStream).
  [[noreturn]] static void lost(const char* what);

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
  // Sends count bytes of the file fd from offset after the output queued so
  // far, straight from the file (see TCPSocket::sendFile for the blocks,
  // afterBlock and the limits). Checksummed mode needs the bytes here to sum
  // them, so there it is kUnavailable. A failed send throws LinkLost.
  FileSend sendFile(int fd, int64_t offset, int64_t count, int blockSize,
                    const TCPSocket::BlockSent& afterBlock);

 private:
  void setExceptionMask();
};

#endif  // HIVE_UTIL_TCPSTREAM_H_
