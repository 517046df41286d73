// A child process for a test, with chosen arguments, environment changes and
// standard input. Its standard output and error go to files in a private
// folder, so a chatty child never blocks on a pipe. Every wait is bounded;
// the destructor kills and reaps a child still running.
#ifndef HIVE_TESTS_SUPPORT_RUNPROCESS_H_
#define HIVE_TESTS_SUPPORT_RUNPROCESS_H_

#include <sys/types.h>

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/TempDir.h"

class RunProcess {
 public:
  // Variables to set (a value) or remove (no value) in the child's
  // environment, on top of this process's.
  using Environment = std::map<std::string, std::optional<std::string>>;

  struct Result {
    int status;  // as from waitExit(); -1 when killed at the time-out
    std::string out, err;
  };

  // Starts program (looked up in PATH when it holds no '/') with no blocked
  // signals and default dispositions. Throws std::runtime_error when it
  // cannot start.
  RunProcess(const std::string& program, const std::vector<std::string>& args,
             const Environment& env = {}, const std::string& input = "");
  ~RunProcess() { kill(); }
  RunProcess(const RunProcess&) = delete;
  RunProcess& operator=(const RunProcess&) = delete;

  // Sends sig to the child while it runs (safe from any thread).
  void signal(int sig);
  // Waits up to timeoutMs for the child to end, without killing it. Its exit
  // status, 128 + n when killed by signal n, or -1 while it still runs.
  int waitExit(int timeoutMs);
  // SIGCONT and SIGTERM, then SIGKILL when it is still there after graceMs.
  int stop(int graceMs);
  // Waits up to timeoutMs (killing the child after that); all it wrote.
  Result wait(int timeoutMs);

  std::string out() const { return TempDir::read(mDir.file("out")); }
  std::string err() const { return TempDir::read(mDir.file("err")); }

 private:
  int kill();

  TempDir mDir;
  std::atomic<pid_t> mPid{-1};  // signal() may come from another thread
  int mStatus = -1;
};

#endif  // HIVE_TESTS_SUPPORT_RUNPROCESS_H_
