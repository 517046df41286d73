// AbstractLogger: the interface a buffered per-record stream (LogStream)
// talks to, and that stream with its growable, nestable buffer.
#ifndef HIVE_UTIL_ABSTRACTLOGGER_H_
#define HIVE_UTIL_ABSTRACTLOGGER_H_

#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

enum LogLevel { LOG_INFO = 1, LOG_DEBUG = 2 };

using AbstractMask = int;

class LogStream;

class AbstractLogger {
 public:
  // The mask of levels this logger accepts.
  virtual int accepts() = 0;
  // Begins a record in stream (e.g. writes its header).
  virtual void start(int mask, LogStream& stream) = 0;
  // Ends the record and emits it.
  virtual void finish(int mask, LogStream& stream) = 0;
  virtual ~AbstractLogger() = default;
};

// Growable in-memory buffer; records may nest, each remembering its start.
class LogStreambuf : public std::streambuf {
 public:
  LogStreambuf();
  // Marks the start of a (nested) record at the current end of text.
  void nest();
  // Pops the innermost record; returns (start, length) of its text.
  std::pair<const char*, std::size_t> unnest();
  // Forgets all records; shrinks a buffer beyond 1024 characters.
  void clear();

 protected:
  int_type overflow(int_type c) override;

 private:
  void resetPutArea(std::size_t used);

  std::string mBuffer;
  std::vector<uint64_t> mNest;
};

// Output stream over a LogStreambuf. start() opens a record for a logger,
// insertions compose it, finish() hands it over.
class LogStream : private LogStreambuf, public std::ostream {
 public:
  LogStream();
  // Restores the initial format flags, clears the buffer, opens a record.
  void start(AbstractLogger& logger, int mask);
  // Emits the record through the logger; exceptions from it are swallowed.
  void finish();
  LogStreambuf& buffer() { return *this; }
  using LogStreambuf::nest;
  using LogStreambuf::unnest;

 private:
  std::ios::fmtflags mFmtFlags;  // captured at construction
  AbstractLogger* mLogger = nullptr;
  AbstractMask mMask = 0;
};

#endif  // HIVE_UTIL_ABSTRACTLOGGER_H_
