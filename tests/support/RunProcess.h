// RunProcess: runs a program as a child process for a test, with chosen
// arguments, environment changes and standard input, and captures its
// standard output, standard error and exit status.  Output goes to files in
// a private temporary folder, so a chatty child never blocks on a pipe.
// Every wait is bounded; the destructor kills and reaps a child still
// running.
//
//   RunProcess p(HIVE_BINARY_DIR "/hivecopy", {"--help"});
//   RunProcess::Result r = p.wait(30000);
//   EXPECT_EQ(r.status, 0);
#ifndef HIVE_TESTS_SUPPORT_RUNPROCESS_H
#define HIVE_TESTS_SUPPORT_RUNPROCESS_H

#include <sys/types.h>

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <vector>

class RunProcess {
 public:
  // Variables to set (a value) or remove (no value) in the child's
  // environment, on top of this process's.
  using Environment = std::map<std::string, std::optional<std::string>>;

  struct Result {
    int status = -1;  // exit status, 128 + n when killed by signal n, -1 on time-out
    std::string out;
    std::string err;
  };

  // Starts binary with args (argv[0] is the binary) with input as its
  // standard input.  The child starts with no blocked signals.  Throws
  // std::runtime_error when it cannot be started.
  RunProcess(const std::string& binary, const std::vector<std::string>& args,
             const Environment& env = {}, const std::string& input = "");
  ~RunProcess();
  RunProcess(const RunProcess&) = delete;
  RunProcess& operator=(const RunProcess&) = delete;

  // Sends sig to the child while it runs.
  void signal(int sig);
  // Waits up to timeoutMs for the child to end (killing it after that) and
  // returns what it wrote and its status.
  Result wait(int timeoutMs);

 private:
  std::string mFolder;
  std::atomic<pid_t> mPid{-1};  // signal() may come from another thread
};

#endif  // HIVE_TESTS_SUPPORT_RUNPROCESS_H
