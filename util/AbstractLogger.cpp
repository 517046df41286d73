#include "util/AbstractLogger.h"

namespace {

// A cleared buffer larger than this is given back.
const std::size_t kShrinkLimit = 1024;

}  // namespace

LogStreambuf::LogStreambuf() { resetPutArea(0); }

void LogStreambuf::resetPutArea(std::size_t used) {
  mBuffer.resize(mBuffer.capacity());
  char* base = &mBuffer[0];
  setp(base, base + mBuffer.size());
  pbump(static_cast<int>(used));
}

LogStreambuf::int_type LogStreambuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return 0;
  const std::size_t used = static_cast<std::size_t>(pptr() - pbase());
  mBuffer.resize(used);
  mBuffer.push_back(traits_type::to_char_type(c));
  resetPutArea(used + 1);
  return 0;
}

void LogStreambuf::nest() { mNest.push_back(static_cast<uint64_t>(pptr() - pbase())); }

std::pair<const char*, std::size_t> LogStreambuf::unnest() {
  uint64_t start = 0;
  if (!mNest.empty()) {
    start = mNest.back();
    mNest.pop_back();
  }
  return {pbase() + start, static_cast<std::size_t>(pptr() - pbase()) - start};
}

void LogStreambuf::clear() {
  mNest.clear();
  if (mBuffer.size() > kShrinkLimit) std::string(kShrinkLimit, '\0').swap(mBuffer);
  resetPutArea(0);
}

LogStream::LogStream() : std::ostream(static_cast<LogStreambuf*>(this)) {
  // The logger's output format, so buffered records read like direct ones
  // (thread ids with "0x", fixed floating point).
  setf(std::ios::showbase);
  setf(std::ios::fixed, std::ios::floatfield);
  precision(6);
  mFmtFlags = flags();
}

void LogStream::start(AbstractLogger& logger, int mask) {
  flags(mFmtFlags);
  LogStreambuf::clear();
  mLogger = &logger;
  mMask = mask;
  logger.start(mask, *this);
}

void LogStream::finish() {
  if (mLogger == nullptr) return;
  try {
    mLogger->finish(mMask, *this);
    mLogger = nullptr;
  } catch (...) {
    // A log record must never take its writer down.
  }
}
