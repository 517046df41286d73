#include "support/RunProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <stdexcept>
#include <thread>

extern char** environ;

RunProcess::RunProcess(const std::string& program, const std::vector<std::string>& args,
                       const Environment& env, const std::string& input) {
  TempDir::write(mDir.file("in"), input);
  std::vector<std::string> argTexts{program}, envTexts;
  argTexts.insert(argTexts.end(), args.begin(), args.end());
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (env.count(text.substr(0, text.find('='))) == 0) envTexts.push_back(text);
  }
  for (const auto& [name, value] : env) {
    if (value) envTexts.push_back(name + "=" + *value);
  }
  std::vector<char*> argv{nullptr}, envp{nullptr};
  for (std::string& text : argTexts) argv.insert(argv.end() - 1, text.data());
  for (std::string& text : envTexts) envp.insert(envp.end() - 1, text.data());

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

void RunProcess::signal(int sig) {
  if (mPid > 0) ::kill(mPid, sig);
}

int RunProcess::waitExit(int timeoutMs) {
  for (int waited = 0; mPid > 0; waited += 10) {
    int status = 0;
    if (::waitpid(mPid, &status, WNOHANG) == mPid) {
      mStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      mPid = -1;
    } else if (waited >= timeoutMs) {
      return -1;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  return mStatus;
}

int RunProcess::kill() {
  signal(SIGKILL);
  return waitExit(10000);
}

int RunProcess::stop(int graceMs) {
  signal(SIGCONT);
  signal(SIGTERM);
  return waitExit(graceMs) == -1 ? kill() : mStatus;
}

RunProcess::Result RunProcess::wait(int timeoutMs) {
  const int status = waitExit(timeoutMs);
  if (status == -1) kill();
  return {status, out(), err()};
}
