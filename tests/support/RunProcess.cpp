#include "support/RunProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace {

const int kPollMs = 10;

// This process's environment with the changes applied, as "NAME=value".
std::vector<std::string> childEnvironment(const RunProcess::Environment& changes) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (changes.count(text.substr(0, text.find('='))) == 0) result.push_back(text);
  }
  for (const auto& [name, value] : changes) {
    if (value) result.push_back(name + "=" + *value);
  }
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

RunProcess::RunProcess(const std::string& program, const std::vector<std::string>& args,
                       const Environment& env, const std::string& input) {
  TempDir::write(mDir.file("in"), input);
  std::vector<std::string> argTexts{program};
  argTexts.insert(argTexts.end(), args.begin(), args.end());
  std::vector<std::string> envTexts = childEnvironment(env);
  std::vector<char*> argv = pointers(argTexts);
  std::vector<char*> envp = pointers(envTexts);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, mDir.file("in").c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, mDir.file("out").c_str(), O_WRONLY | O_CREAT, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, mDir.file("err").c_str(), O_WRONLY | O_CREAT, 0644);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGUSR1}) sigaddset(&defaults, sig);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, argv[0], &actions, &attr, argv.data(), envp.data());
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("RunProcess: cannot start " + program);
  mPid = pid;
}

RunProcess::~RunProcess() {
  signal(SIGKILL);
  waitExit(10000);
}

void RunProcess::signal(int sig) {
  if (mPid > 0) ::kill(mPid, sig);
}

int RunProcess::waitExit(int timeoutMs) {
  for (int waited = 0; mPid > 0; waited += kPollMs) {
    int status = 0;
    if (::waitpid(mPid, &status, WNOHANG) == mPid) {
      mStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      mPid = -1;
    } else if (waited >= timeoutMs) {
      return -1;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    }
  }
  return mStatus;
}

int RunProcess::stop(int graceMs) {
  signal(SIGCONT);
  signal(SIGTERM);
  if (waitExit(graceMs) == -1) signal(SIGKILL);
  return waitExit(10000);
}

RunProcess::Result RunProcess::wait(int timeoutMs) {
  Result result;
  result.status = waitExit(timeoutMs);
  if (result.status == -1) {
    signal(SIGKILL);
    waitExit(10000);
  }
  result.out = out();
  result.err = err();
  return result;
}
