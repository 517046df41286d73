#include "util/SignalProcessing.h"

#include <signal.h>

#include "util/Assert.h"
#include <cerrno>
#include <exception>
#include <iostream>

#include "util/StringUtilities.h"
#include "util/System.h"

namespace {

// Reserved as the dispatcher's wake-up signal.
const int kWakeUpSignal = SIGILL;

// Blocks every signal in the calling thread for its lifetime.
class BlockAllSignals {
 public:
  BlockAllSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &mSaved);
  }
  ~BlockAllSignals() { pthread_sigmask(SIG_SETMASK, &mSaved, nullptr); }
  BlockAllSignals(const BlockAllSignals&) = delete;
  BlockAllSignals& operator=(const BlockAllSignals&) = delete;

 private:
  sigset_t mSaved;
};

}  // namespace

SignalProcessing::Callback SignalProcessing::Configuration::set(int sig, Callback callback) {
  HC_ASSERT(sig != 4);
  Callback previous = mCallbacks[sig];
  mCallbacks[sig] = std::move(callback);
  return previous;
}

SignalProcessing::Callback SignalProcessing::simple(std::function<void(int)> fn) {
  return [fn = std::move(fn)](int sig) {
    fn(sig);
    return Action();
  };
}

SignalProcessing& SignalProcessing::getInstance() {
  static SignalProcessing instance;
  return instance;
}

void SignalProcessing::block(const std::vector<int>& signals) {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : signals) sigaddset(&set, sig);
  const int ern = pthread_sigmask(SIG_BLOCK, &set, nullptr);
  HC_ASSERT(ern == 0);
}

void SignalProcessing::configure(const Configuration& configuration) {
  Mutex::Lock lock(mMutex);
  HC_ASSERT(mState == unconfigured || mState == finished);
  for (const auto& entry : configuration.callbacks()) {
    HC_ASSERT_MSG(entry.second, "! it->second.empty()");
  }
  mCallbacks = configuration.callbacks();
  mState = configured;
  mCond.broadcast();
}

void SignalProcessing::configureRange(const std::vector<int>& signals, Callback callback) {
  Configuration configuration;
  for (int sig : signals) configuration.set(sig, callback);
  configure(configuration);
}

void SignalProcessing::setObserver(Observer observer) {
  Mutex::Lock lock(mMutex);
  mObserver = std::move(observer);
}

SignalProcessing::State SignalProcessing::state() {
  Mutex::Lock lock(mMutex);
  return mState;
}

void SignalProcessing::processSignalsImpl(ProcessingMode mode) {
  // The dispatcher inherits this mask: every signal stays blocked there and
  // arrives only through its synchronous wait.
  BlockAllSignals blockAll;
  {
    Mutex::Lock lock(mMutex);
    if (mState == finished) return;
    HC_ASSERT(mState == configured);
    mState = starting;
    mCond.broadcast();
  }
  switch (mode) {
    case background: {
      if (!Thread::startDetached([this] { unixDispatch(); })) {
        std::cerr << "Unable to start signal dispatcher: " << System::getErrorMessageStr()
                  << std::endl;
        Mutex::Lock lock(mMutex);
        requestStop();
        return;
      }
      Mutex::Lock lock(mMutex);
      mCond.wait(lock, [this] { return mState != starting; });
      break;
    }
    case foreground:
      unixDispatch();
      break;
    default:
      HC_ASSERT(false);
  }
}

void SignalProcessing::stop() {
  Mutex::Lock lock(mMutex);
  requestStop();
  mCond.wait(lock, [this] { return mState == finished; });
}

void SignalProcessing::requestStop() {
  switch (mState) {
    case unconfigured:
    case configured:
    case starting:
      mCallbacks.clear();
      mState = finished;
      mCond.broadcast();
      break;
    case running:
      ++mPendingWakeUps;
      Thread::signal(mDispatcher, kWakeUpSignal);
      mState = stopping;
      mCond.broadcast();
      break;
    case stopping:
    case finished:
      break;
  }
}

void SignalProcessing::report(Progress progress, int sig) {
  Observer observer;
  {
    Mutex::Lock lock(mMutex);
    observer = mObserver;
  }
  if (observer) observer(progress, sig);
}

void SignalProcessing::dispatchOne(int sig) {
  Callback callback;
  {
    Mutex::Lock lock(mMutex);
    auto it = mCallbacks.find(sig);
    if (it != mCallbacks.end()) callback = it->second;
  }
  HC_ASSERT_MSG(callback, "! callback.empty()");
  report(dispatching, sig);
  try {
    Action followUp = callback(sig);
    if (followUp) followUp();
  } catch (const std::exception& e) {
    std::cerr << "Exception in signal processor: " << e.what() << std::endl;
  } catch (...) {
    std::cerr << "Unrecognized exception in signal processor" << std::endl;
  }
}

void SignalProcessing::unixDispatch() {
  sigset_t waitSet;
  sigemptyset(&waitSet);
  {
    Mutex::Lock lock(mMutex);
    if (mState == finished) return;  // stopped before we got going
    HC_ASSERT(mState == starting);
    HC_ASSERT(mDispatcher == 0);
    mDispatcher = Thread::currentId();
    mState = running;
    for (const auto& entry : mCallbacks) sigaddset(&waitSet, entry.first);
    mCond.broadcast();
  }
  // The wake-up signal is blocked here like the others and taken from the
  // same wait, so a stop request sent while a callback runs is not lost.
  sigaddset(&waitSet, kWakeUpSignal);
  for (;;) {
    report(waiting, 0);
    siginfo_t info;
    const int sig = sigwaitinfo(&waitSet, &info);
    if (sig > 0 && sig != kWakeUpSignal) {
      dispatchOne(sig);
      continue;
    }
    if (sig < 0 && errno != EINTR) {
      std::cerr << "Unexpected sigwait error: " << System::getErrorMessageStr() << std::endl;
      continue;
    }
    Mutex::Lock lock(mMutex);
    if (sig == kWakeUpSignal && mPendingWakeUps > 0) --mPendingWakeUps;
    if (mState == stopping) break;
  }
  report(leaving, 0);
  Mutex::Lock lock(mMutex);
  HC_ASSERT(mState == stopping);
  mState = finished;
  mDispatcher = 0;
  mCallbacks.clear();
  mCond.broadcast();
}

void SignalProcessing::defaultAction(int sig) {
  {
    Mutex::Lock lock(mMutex);
    HC_ASSERT(mState == finished);
  }
  sigset_t one, savedMask;
  sigemptyset(&one);
  sigaddset(&one, sig);
  pthread_sigmask(SIG_BLOCK, &one, &savedMask);
  struct sigaction defaultDisposition {}, savedAction;
  defaultDisposition.sa_handler = SIG_DFL;
  sigemptyset(&defaultDisposition.sa_mask);
  sigaction(sig, &defaultDisposition, &savedAction);
  pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
  for (int attempt = 0; attempt < 32; ++attempt) {
    raise(sig);
    Thread::yield();
    System::sleep(100);
  }
  // Still alive: the default effect of sig is to ignore it.
  sigaction(sig, &savedAction, nullptr);
  pthread_sigmask(SIG_SETMASK, &savedMask, nullptr);
}
