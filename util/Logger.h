// The process-wide diagnostic log. Records go to std::clog (the default) or
// to a log file that rolls over into numbered backlogs (path.1 newest ...
// path.N oldest) at the size limit. Logging is off (mask 0) until a level is
// set: info is mask 1, debug mask 3. Write with HC_LOG_INFO("text " << value).
#ifndef HIVE_UTIL_LOGGER_H_
#define HIVE_UTIL_LOGGER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

#include "util/AbstractLogger.h"
#include "util/Mutex.h"
#include "util/Thread.h"

class Logger : public AbstractLogger {
 public:
  using StreamFn = std::function<void(std::ostream&)>;

  // The single instance used by the programs (created before main).
  static Logger& getInstance();

  // Separate instances exist only for tests; the programs use getInstance().
  Logger();
  ~Logger() override;
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // Scoped ownership: locks, marks this thread as the writer, rolls over.
  class Sentry {
   public:
    explicit Sentry(Logger& logger);
    ~Sentry();
    Sentry(const Sentry&) = delete;
    Sentry& operator=(const Sentry&) = delete;

   private:
    Mutex::Lock mLock;
    Logger& mLogger;
  };

  // Logs to path from now on (appending); "" means std::clog. On open
  // failure falls back to std::clog and says "Unable to open log file: ".
  void setLogFile(const std::string& path);
  // Reopens the log file truncated.
  void clear();
  // Reopens the log file by its path, appending (after an outside rotation).
  void reopen();

  void setGlobalMask(int mask) { mGlobalMask = mask; }
  int getGlobalMask() const { return mGlobalMask; }
  int64_t getMaxFileSize() const { return mMaxFileSize; }
  void setMaxFileSize(int64_t bytes) { mMaxFileSize = bytes; }
  // Backlogs kept; -1 unlimited; 0 or less never moves the current file.
  int getFilesToRetain() const { return mFilesToRetain; }
  void setFilesToRetain(int n) { mFilesToRetain = n; }
  void setSetFormatFn(StreamFn fn) { mSetFormatFn = std::move(fn); }
  void setShowHeaderFn(StreamFn fn) { mShowHeaderFn = std::move(fn); }
  Mutex& getMutex() { return mMutex; }
  // The current output; only to be written while holding a Sentry.
  std::ostream* getStream() { return mOutputStream; }
  bool debug() const { return (mGlobalMask & LOG_DEBUG) != 0; }

  int accepts() override { return mGlobalMask; }
  void start(int mask, LogStream& stream) override;
  void finish(int mask, LogStream& stream) override;

  // False when the calling thread holds a Sentry (logging would deadlock).
  bool okToLog() const;
  void setThread(ThreadId id) { mThreadId = id; }
  // Writes the record header to the output.
  void showContext();

  // When mask is enabled and okToLog(): header, message and newline.
  void log(int mask, const std::string& message);

  // "[" local time "] " thread id in hex with "0x" ": ".
  static void showHeader(std::ostream& os);
  // Fixed notation, precision 6, showbase, decimal.
  static void setFormat(std::ostream& os);

 private:
  void openLogFile(bool truncate);
  void rollLog();
  void closeFileStream();
  bool shiftBacklogs(int count);
  std::string backlogName(int n) const;

  Mutex mMutex;
  std::atomic<ThreadId> mThreadId{0};  // read without the lock by okToLog
  std::atomic<int> mGlobalMask{0};
  std::ostream* mOutputStream;
  std::unique_ptr<std::ostream> mFileStream;  // owns mOutputStream when a file
  std::string mPath;
  int64_t mMaxFileSize = 1073741824;
  int mFilesToRetain = 20;
  StreamFn mSetFormatFn;
  StreamFn mShowHeaderFn;
};

// Writes one record of the given level mask through the process logger.
#define HC_LOG(mask, expr)                                         \
  do {                                                             \
    Logger& hcLogger_ = Logger::getInstance();                     \
    if ((hcLogger_.getGlobalMask() & (mask)) && hcLogger_.okToLog()) { \
      std::ostringstream hcLogText_;                               \
      hcLogText_ << expr;                                          \
      hcLogger_.log((mask), hcLogText_.str());                     \
    }                                                              \
  } while (0)

#define HC_LOG_INFO(expr) HC_LOG(LOG_INFO, expr)
#define HC_LOG_DEBUG(expr) HC_LOG(LOG_DEBUG, expr)

#endif  // HIVE_UTIL_LOGGER_H_
