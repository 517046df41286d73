// The signal dispatcher: delivery on its own thread, failing callbacks,
// stopping and reconfiguring.
#include "util/SignalProcessing.h"

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "util/Condition.h"
#include "util/Mutex.h"
#include "util/System.h"

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

  // Records each delivery and the thread it ran on.
  SignalProcessing::Callback recorder() {
    return [this](int sig) {
      Mutex::Lock lock(mMutex);
      mSeen.push_back(sig);
      mThreads.push_back(Thread::currentId());
      mCond.broadcast();
      return SignalProcessing::Action([this] {
        Mutex::Lock l(mMutex);
        ++mFollowUps;
      });
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
  int mFollowUps = 0;
};

}  // namespace

TEST_F(SignalProcessingTest, ThrowingCallbackIsReportedAndDispatchGoesOn) {
  SignalProcessing::Callback record = recorder();
  SignalProcessing::Configuration config;
  config.set(SIGTERM, [&](int sig) -> SignalProcessing::Action { record(sig); throw std::runtime_error("boom"); });
  config.set(SIGUSR2, [&](int sig) -> SignalProcessing::Action { record(sig); throw 7; });
  mSp.configure(config);
  testing::internal::CaptureStderr();
  mSp.processSignals();
  const bool delivered = sendAndAwait(SIGTERM, 1) && sendAndAwait(SIGUSR2, 2) && sendAndAwait(SIGTERM, 3);
  mSp.stop();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(delivered);
  EXPECT_NE(std::string::npos, err.find("boom")) << err;
}

TEST_F(SignalProcessingTest, DispatchStopAndReconfigure) {
  // Stopping before the dispatcher starts finishes at once; starting after
  // that does nothing.
  mSp.configureRange({SIGTERM}, recorder());
  mSp.stop();
  EXPECT_EQ(SignalProcessing::finished, mSp.state());
  mSp.processSignals();
  EXPECT_EQ(SignalProcessing::finished, mSp.state());
  EXPECT_EQ(ThreadId(0), mSp.dispatcherThread());

  // A foreground dispatcher runs on the calling thread until stopped.
  mSp.configureRange({SIGUSR2}, recorder());
  std::thread foreground([this] {
    pthread_sigmask(SIG_BLOCK, &mSignals, nullptr);
    mSp.processSignalsImpl(SignalProcessing::foreground);
  });
  for (int i = 0; i < 1000 && mSp.state() != SignalProcessing::running; ++i) System::sleep(10);
  ASSERT_EQ(SignalProcessing::running, mSp.state());
  EXPECT_TRUE(sendAndAwait(SIGUSR2, 1));
  mSp.stop();
  foreground.join();

  // And in the background with another signal set: each signal reaches its
  // callback on the dispatcher thread, and each follow-up action runs.
  mSp.configureRange({SIGTERM, SIGUSR2}, recorder());
  mSp.processSignals();
  ASSERT_EQ(SignalProcessing::running, mSp.state());
  const ThreadId dispatcher = mSp.dispatcherThread();
  ASSERT_TRUE(sendAndAwait(SIGTERM, 2) && sendAndAwait(SIGUSR2, 3));
  mSp.stop();
  EXPECT_EQ(std::vector<int>({SIGUSR2, SIGTERM, SIGUSR2}), mSeen);
  for (size_t i = 1; i < mThreads.size(); ++i) {
    EXPECT_TRUE(pthread_equal(mThreads[i], dispatcher));
    EXPECT_FALSE(pthread_equal(mThreads[i], Thread::currentId()));
  }
  EXPECT_EQ(3, mFollowUps);
}
