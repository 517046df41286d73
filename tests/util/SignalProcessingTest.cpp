#include "util/SignalProcessing.h"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

// A callback that throws is reported and the next signal is still dispatched.
TEST(SignalProcessingTest, ThrowingCallbackIsReportedAndDispatchGoesOn) {
  sigset_t signals, saved;  // blocked here and so in the dispatcher
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &signals, &saved);
  Mutex mutex;
  Condition cond;
  std::vector<int> seen;
  const auto record = [&](int sig) {
    Mutex::Lock lock(mutex);
    seen.push_back(sig);
    cond.broadcast();
    if (sig == SIGTERM) throw std::runtime_error("boom");
    return SignalProcessing::Action();
  };
  const auto sendAndAwait = [&](int sig, size_t n) {
    kill(getpid(), sig);
    Mutex::Lock lock(mutex);
    return cond.waitFor(lock, 10000, [&] { return seen.size() >= n; });
  };
  SignalProcessing& sp = SignalProcessing::getInstance();
  sp.configureRange({SIGTERM, SIGUSR2}, record);
  testing::internal::CaptureStderr();
  sp.processSignals();
  const bool delivered = sendAndAwait(SIGTERM, 1) && sendAndAwait(SIGUSR2, 2);
  sp.stop();
  const std::string err = testing::internal::GetCapturedStderr();
  const timespec zero = {0, 0};
  for (int i = 0; i < 4 && sigtimedwait(&signals, nullptr, &zero) > 0; ++i) continue;
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  EXPECT_TRUE(delivered);
  EXPECT_EQ(std::vector<int>({SIGTERM, SIGUSR2}), seen);
  EXPECT_NE(std::string::npos, err.find("Exception in signal processor: boom")) << err;
  EXPECT_EQ(SignalProcessing::finished, sp.state());
}
