#include "util/Logger.h"

#include <iomanip>
#include <iostream>

#include "util/System.h"

namespace {

// Created by static initialisation so that the log exists before main.
[[maybe_unused]] Logger& sInstance = Logger::getInstance();

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

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
