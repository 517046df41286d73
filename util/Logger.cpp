#include "util/Logger.h"

#include <iomanip>
#include <iostream>

#include "util/System.h"

namespace {

// Created by static initialisation so that the log exists before main.
[[maybe_unused]] Logger& sInstance = Logger::getInstance();

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

const std::size_t kShrinkLimit = 1024;

}  // namespace

Logger& Logger::getInstance() {
  static Logger instance;
  return instance;
}

Logger::Logger()
    : mOutputStream(&std::clog), mSetFormatFn(&Logger::setFormat), mShowHeaderFn(&Logger::showHeader) {
  setFormat(std::clog);
}

Logger::~Logger() { closeFileStream(); }

Logger::Sentry::Sentry(Logger& logger) : mLock(logger.mMutex), mLogger(logger) {
  mLogger.setThread(Thread::currentId());
  mLogger.rollLog();
}

Logger::Sentry::~Sentry() { mLogger.setThread(0); }

void Logger::setLogFile(const std::string& path) {
  Mutex::Lock lock(mMutex);
  mPath = path;
  openLogFile(false);
}

void Logger::clear() {
  Mutex::Lock lock(mMutex);
  openLogFile(true);
}

void Logger::reopen() {
  Mutex::Lock lock(mMutex);
  openLogFile(false);
}

bool Logger::okToLog() const { return !pthread_equal(mThreadId, Thread::currentId()); }

void Logger::showContext() { mShowHeaderFn(*mOutputStream); }

void Logger::log(int mask, const std::string& message) {
  if ((mGlobalMask & mask) == 0 || !okToLog()) return;
  Sentry sentry(*this);
  showContext();
  *mOutputStream << message << '\n';
  mOutputStream->flush();
}

void Logger::showHeader(std::ostream& os) {
  std::string now;
  System::currentTimeAsString(now);
  os << '[' << now << "] " << std::hex << std::setw(7)
     << static_cast<unsigned long>(Thread::currentId()) << std::dec << ": ";
}

void Logger::setFormat(std::ostream& os) {
  os.setf(std::ios::fixed, std::ios::floatfield);
  os.precision(6);
  os.setf(std::ios::showbase);
  os.setf(std::ios::dec, std::ios::basefield);
}

void Logger::start(int mask, LogStream& stream) {
  if ((mask & mGlobalMask) == 0 || !okToLog()) return;
  stream.nest();
  mShowHeaderFn(stream);
}

void Logger::finish(int mask, LogStream& stream) {
  if ((mask & mGlobalMask) == 0 || !okToLog()) return;
  stream << '\n';
  const std::pair<const char*, std::size_t> record = stream.unnest();
  Mutex::Lock lock(mMutex);
  rollLog();
  mOutputStream->write(record.first, static_cast<std::streamsize>(record.second));
  mOutputStream->flush();
}

void Logger::closeFileStream() {
  mFileStream.reset();  // writes out the buffer and closes
  mOutputStream = nullptr;
}

void Logger::openLogFile(bool truncate) {
  closeFileStream();
  if (mPath.empty()) {
    mOutputStream = &std::clog;
    return;
  }
  // ate puts the write position at the end of an existing file, so that its
  // size counts towards the roll-over limit straight away.
  mFileStream = System::make_ofstream(
      mPath, std::ios::out | (truncate ? std::ios::trunc : std::ios::app | std::ios::ate), true);
  if (!mFileStream->good()) {
    mFileStream.reset();
    mOutputStream = &std::clog;
    std::clog << "Unable to open log file: " << mPath << std::endl;
  } else {
    mOutputStream = mFileStream.get();
  }
  mSetFormatFn(*mOutputStream);
}

std::string Logger::backlogName(int n) const { return mPath + "." + std::to_string(n); }

// Moves path.i to path.i+1 for i = count .. 1, dropping the oldest when it
// would exceed the retention limit. False when a step failed (reported).
bool Logger::shiftBacklogs(int count) {
  for (int i = count; i >= 1; --i) {
    const std::string from = backlogName(i);
    const std::string to = backlogName(i + 1);
    if (i + 1 == mFilesToRetain && System::fileExists(to, DONT_FOLLOW_SYMLINK) &&
        !System::retryRemove(to, true)) {
      std::clog << "Logger::rollLog() failed to delete file " << quoted(to) << ": "
                << System::getErrorMessageStr() << std::endl;
      return false;
    }
    if (!System::retryMove(from, to, false)) {
      std::clog << "Logger::rollLog() failed to rename backlog " << quoted(from) << " to "
                << quoted(to) << ": " << System::getErrorMessageStr() << std::endl;
      return false;
    }
  }
  return true;
}

void Logger::rollLog() {
  if (mOutputStream == nullptr || mOutputStream->tellp() < mMaxFileSize) return;
  if (mOutputStream == &std::clog || mPath.empty()) {
    mOutputStream->seekp(0);
    return;
  }
  int count = 0;
  while ((mFilesToRetain == -1 || count + 1 != mFilesToRetain) &&
         System::fileExists(backlogName(count + 1), DONT_FOLLOW_SYMLINK)) {
    ++count;
  }
  if (!shiftBacklogs(count)) return;
  if (mFilesToRetain <= 0) {
    openLogFile(false);
    return;
  }
  closeFileStream();
  const std::string first = backlogName(1);
  if (System::retryMove(mPath, first, false)) {
    openLogFile(false);
    return;
  }
  const int error = errno;
  std::clog << "Logger::rollLog() failed to rename " << quoted(mPath) << " to " << quoted(first)
            << ": " << System::errorText(error) << std::endl;
  mOutputStream = &std::clog;
}

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
  Logger::setFormat(*this);  // buffered records read like direct ones
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
