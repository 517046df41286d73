// The signal dispatcher: delivery on its own thread, failing callbacks and
// stopping.
#include "util/SignalProcessing.h"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "util/Condition.h"
#include "util/Mutex.h"

namespace {

// Keeps SIGTERM and SIGUSR2 blocked in the test thread (and so in the
// dispatcher it starts) and leaves the singleton stopped and nothing pending.
class SignalProcessingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sigemptyset(&mSignals);
    sigaddset(&mSignals, SIGTERM);
    sigaddset(&mSignals, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &mSignals, &mSaved);
  }
  void TearDown() override {
    mSp.stop();
    const timespec zero = {0, 0};
    for (int i = 0; i < 4 && sigtimedwait(&mSignals, nullptr, &zero) > 0; ++i) continue;
    pthread_sigmask(SIG_SETMASK, &mSaved, nullptr);
  }

  // Records each delivery and the thread it ran on, then runs then(sig).
  SignalProcessing::Callback recorder(std::function<void(int)> then = [](int) {}) {
    return [this, then](int sig) {
      {
        Mutex::Lock lock(mMutex);
        mSeen.push_back(sig);
        mThreads.push_back(Thread::currentId());
        mCond.broadcast();
      }
      then(sig);
      return SignalProcessing::Action();
    };
  }
  // Sends sig to the process and waits (at most 10 s) for delivery number n.
  bool sendAndAwait(int sig, size_t n) {
    kill(getpid(), sig);
    Mutex::Lock lock(mMutex);
    return mCond.waitFor(lock, 10000, [&] { return mSeen.size() >= n; });
  }

  SignalProcessing& mSp = SignalProcessing::getInstance();
  sigset_t mSignals, mSaved;
  Mutex mMutex;
  Condition mCond;
  std::vector<int> mSeen;
  std::vector<ThreadId> mThreads;
};

}  // namespace

TEST_F(SignalProcessingTest, ThrowingCallbackIsReportedAndDispatchGoesOn) {
  SignalProcessing::Configuration config;
  config.set(SIGTERM, recorder([](int) { throw std::runtime_error("boom"); }));
  config.set(SIGUSR2, recorder([](int) { throw 7; }));
  mSp.configure(config);
  testing::internal::CaptureStderr();
  mSp.processSignals();
  const bool delivered = sendAndAwait(SIGTERM, 1) && sendAndAwait(SIGUSR2, 2) && sendAndAwait(SIGTERM, 3);
  mSp.stop();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(delivered);
  EXPECT_NE(std::string::npos, err.find("boom")) << err;
}

TEST_F(SignalProcessingTest, DispatchOnItsOwnThreadUntilStopped) {
  // Stopping before the dispatcher starts finishes at once; starting after
  // that does nothing.
  mSp.configureRange({SIGTERM}, recorder());
  mSp.stop();
  mSp.processSignals();
  EXPECT_EQ(SignalProcessing::finished, mSp.state());
  EXPECT_EQ(ThreadId(0), mSp.dispatcherThread());

  mSp.configureRange({SIGTERM, SIGUSR2}, recorder());
  mSp.processSignals();
  const ThreadId dispatcher = mSp.dispatcherThread();
  ASSERT_TRUE(sendAndAwait(SIGTERM, 1) && sendAndAwait(SIGUSR2, 2));
  mSp.stop();
  EXPECT_EQ(SignalProcessing::finished, mSp.state());
  EXPECT_EQ(std::vector<int>({SIGTERM, SIGUSR2}), mSeen);
  for (ThreadId t : mThreads) EXPECT_TRUE(pthread_equal(t, dispatcher) && !pthread_equal(t, Thread::currentId()));
}
