#include "util/TCPStream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "util/Assert.h"
#include "util/CRC.h"

namespace {

void putBE32(char* out, uint32_t v) {
  out[0] = static_cast<char>(v >> 24);
  out[1] = static_cast<char>(v >> 16);
  out[2] = static_cast<char>(v >> 8);
  out[3] = static_cast<char>(v);
}

uint32_t getBE32(const char* in) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(in);
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

}  // namespace

TCPStreamBuf::TCPStreamBuf(TCPSocket* socket) : mSocket(socket), mPutBackSize(kPutBackSize) {
  setInputBufferSize(kBufSize);
  setOutputBufferSize(kOutBufSize);
  reset();  // also sets the checksum state
}

void TCPStreamBuf::reset() {
  char* in = mBufferIn.data() + mPutBackSize;
  setg(in, in, in);
  char* out = mBufferOut.data() + kCRCHeaderSize;
  setp(out, out + mOutBufSize);
  mCRCMismatch = false;
  mExpectedCRC = mActualCRC = mBytesToSum = 0;
}

void TCPStreamBuf::setInputBufferSize(int size) {
  HC_ASSERT(buffered() == 0 && size > 0);
  mBufSize = size;
  mBufferIn.assign(static_cast<size_t>(mPutBackSize + size), 0);
  char* in = mBufferIn.data() + mPutBackSize;
  setg(in, in, in);
}

void TCPStreamBuf::setOutputBufferSize(int size) {
  HC_ASSERT(pptr() == pbase() && size > 0);
  mOutBufSize = size;
  mBufferOut.assign(static_cast<size_t>(kCRCHeaderSize + size), 0);
  char* out = mBufferOut.data() + kCRCHeaderSize;
  setp(out, out + size);
}

void TCPStreamBuf::setCRCMode(std::function<void()> onMismatch) {
  mUseCRC = std::move(onMismatch);
}

bool TCPStreamBuf::flushOutput() {
  const int length = static_cast<int>(pptr() - pbase());
  if (length == 0) return true;
  const char* start = pbase();
  int total = length;
  if (mUseCRC) {
    char* header = mBufferOut.data();
    putBE32(header, static_cast<uint32_t>(length));
    putBE32(header + 4, CRC::crc32c(reinterpret_cast<const unsigned char*>(start),
                                    static_cast<unsigned long>(length), 0));
    start = header;
    total += kCRCHeaderSize;
  }
  const int written = mSocket->write(start, total);
  pbump(-length);
  return written == total;
}

void TCPStreamBuf::lost(const char* what) { throw LinkLost(what); }

void TCPStreamBuf::lostReading(int n) {
  lost(n == 0 ? "connection closed by the peer" : "connection lost or timed out");
}

TCPStreamBuf::int_type TCPStreamBuf::overflow(int_type c) {
  if (!flushOutput()) lost("send failed");
  if (!traits_type::eq_int_type(c, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
  }
  return traits_type::not_eof(c);
}

int TCPStreamBuf::sync() {
  if (!flushOutput()) lost("send failed");
  return 0;
}

std::streamsize TCPStreamBuf::xsputn(const char* s, std::streamsize n) {
  const bool bulk = !mUseCRC && n >= kOutBufSize;
  if (!bulk && n <= epptr() - pptr()) {
    std::memcpy(pptr(), s, static_cast<size_t>(n));
    pbump(static_cast<int>(n));
    return n;
  }
  if (!bulk) return std::streambuf::xsputn(s, n);
  // Bulk data goes straight from the caller's buffer to the socket, after
  // whatever is already queued (in the same send) so that the byte order is
  // kept.
  std::streamsize done = 0;
  while (done < n) {
    const int queued = static_cast<int>(pptr() - pbase());  // only before the first chunk
    const int chunk = static_cast<int>(std::min<std::streamsize>(n - done, 1 << 30));
    const int written = mSocket->write(pbase(), queued, s + done, chunk);
    pbump(-queued);
    if (written != queued + chunk) lost("send failed");
    done += chunk;
  }
  return done;
}

bool TCPStreamBuf::readBlockHeader() {
  char header[kCRCHeaderSize];
  int have = 0;
  while (have < kCRCHeaderSize) {
    const int n = mSocket->read(header + have, kCRCHeaderSize - have);
    if (n <= 0) return false;
    have += n;
  }
  mBytesToSum = getBE32(header);
  mExpectedCRC = getBE32(header + 4);
  mActualCRC = 0;
  return true;
}

int TCPStreamBuf::fillInput(char* dest, int maxLength) {
  if (!mUseCRC) return mSocket->read(dest, maxLength);
  // Empty blocks carry nothing; each costs the peer a header, so this only
  // loops while real bytes arrive.
  while (mBytesToSum == 0) {
    if (!readBlockHeader()) return -1;
  }
  const int want = static_cast<int>(std::min<uint32_t>(mBytesToSum, static_cast<uint32_t>(maxLength)));
  const int n = mSocket->read(dest, want);
  if (n <= 0) return n;
  mActualCRC = CRC::crc32c(reinterpret_cast<const unsigned char*>(dest),
                           static_cast<unsigned long>(n), mActualCRC);
  mBytesToSum -= static_cast<uint32_t>(n);
  if (mBytesToSum == 0 && mActualCRC != mExpectedCRC) {
    mCRCMismatch = true;
    mUseCRC();
  }
  return n;
}

void TCPStreamBuf::keepPutBack(const char* end, std::streamsize count) {
  const std::streamsize keep = std::min<std::streamsize>(count, mPutBackSize);
  char* data = mBufferIn.data() + mPutBackSize;
  std::memmove(data - keep, end - keep, static_cast<size_t>(keep));
  setg(data - keep, data, data);
}

TCPStreamBuf::int_type TCPStreamBuf::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  keepPutBack(gptr(), gptr() - eback());
  char* data = mBufferIn.data() + mPutBackSize;
  const int n = fillInput(data, mBufSize);
  if (n <= 0) lostReading(n);
  setg(eback(), data, data + n);
  return traits_type::to_int_type(*gptr());
}

std::streamsize TCPStreamBuf::xsgetn(char* s, std::streamsize n) {
  const std::streamsize avail = egptr() - gptr();
  if (mUseCRC || n - avail < mBufSize) return std::streambuf::xsgetn(s, n);
  // Bulk data: take what is buffered, then receive straight into the
  // caller's buffer; only the tail is refilled through the buffer.
  std::memcpy(s, gptr(), static_cast<size_t>(avail));
  gbump(static_cast<int>(avail));
  std::streamsize done = avail;
  while (n - done >= mBufSize) {
    const int chunk = static_cast<int>(std::min<std::streamsize>(n - done, 1 << 30));
    const int got = mSocket->read(s + done, chunk);
    if (got <= 0) lostReading(got);
    done += got;
  }
  keepPutBack(s + done, done);
  if (done < n) done += std::streambuf::xsgetn(s + done, n - done);
  return done;
}

TCPStream::TCPStream() { setExceptionMask(); }

TCPStream::TCPStream(std::unique_ptr<TCPSocket> socket) : TCPRawStream(std::move(socket)) {
  setExceptionMask();
}

TCPStream::TCPStream(const std::string& host, int port, long timeoutMs, int readTimeoutMs)
    : TCPRawStream(host, port, timeoutMs, readTimeoutMs) {
  setExceptionMask();
}

TCPStream::FileSend TCPStream::sendFile(int fd, int64_t offset, int64_t count, int blockSize,
                                        const TCPSocket::BlockSent& afterBlock) {
  if (streamBuf().crcMode()) return FileSend::kUnavailable;
  flush();  // what is queued goes first
  TCPSocket& s = socket();
  if (s.sendFile(fd, offset, count, blockSize, afterBlock)) return FileSend::kDone;
  if (s.getLastError() == EOPNOTSUPP) return FileSend::kUnavailable;
  if (s.getLastError() == ENODATA) return FileSend::kFileEnded;
  throw LinkLost("send failed");
}

// The stream buffer throws LinkLost; with badbit in the mask the stream
// passes it on as it stands. A stream used again after its link was lost
// raises the standard failure, which no caller takes for a lost link.
void TCPStream::setExceptionMask() {
  exceptions(std::ios::badbit | std::ios::failbit | std::ios::eofbit);
}
