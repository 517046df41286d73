// Turns asynchronous POSIX signals into ordinary calls on a dispatcher thread.
// The process blocks the signals it handles before any other thread exists
// (block()), configures one callback per signal, and starts the dispatcher,
// which waits for them synchronously (sigwait) and runs the callbacks
// without holding any lock. SIGILL is reserved as the dispatcher's wake-up.
//
//   SignalProcessing::block(System::sInteractiveShutdownSignals);   // main thread, first
//   SignalProcessing& sp = SignalProcessing::getInstance();
//   sp.configureRange(System::sInteractiveShutdownSignals,
//                     SignalProcessing::simple([&](int sig) { mgr.onSignal(sig); }));
//   sp.processSignals();
//   ...
//   sp.stop();   // before destroying what the callbacks use
#ifndef HIVE_UTIL_SIGNALPROCESSING_H_
#define HIVE_UTIL_SIGNALPROCESSING_H_

#include <functional>
#include <map>
#include <vector>

#include "util/Condition.h"
#include "util/Mutex.h"
#include "util/Thread.h"

class SignalProcessing {
 public:
  enum State { unconfigured = 0, configured = 1, starting = 2, running = 3, stopping = 4, finished = 5 };
  enum ProcessingMode { background = 0, foreground = 1 };
  // Progress reports of the dispatcher to the optional observer.
  enum Progress { waiting = 0, dispatching = 1, leaving = 2 };

  // Run after the dispatcher has finished the callback (may be empty).
  using Action = std::function<void()>;
  // Called on the dispatcher thread with the signal number.
  using Callback = std::function<Action(int)>;
  using CallbackMap = std::map<int, Callback>;
  // Called on the dispatcher thread; sig is 0 except for dispatching.
  using Observer = std::function<void(Progress, int sig)>;

  // Signal-to-callback map built before configure().
  class Configuration {
   public:
    // Binds callback to sig and returns the one previously bound.
    // SIGILL (4) can never be configured (assertion "sig != 4").
    Callback set(int sig, Callback callback);
    const CallbackMap& callbacks() const { return mCallbacks; }

   private:
    CallbackMap mCallbacks;
  };

  // Wraps a plain void(int) function as a Callback without follow-up action.
  static Callback simple(std::function<void(int)> fn);

  static SignalProcessing& getInstance();

  // Adds the signals to the calling thread's blocked mask.
  static void block(const std::vector<int>& signals);
  // Removes the signals from the calling thread's blocked mask.
  static void unblock(const std::vector<int>& signals);

  // Only in state unconfigured or finished; every callback must be set.
  void configure(const Configuration& configuration);
  // Binds one callback to every signal of the list and configures.
  void configureRange(const std::vector<int>& signals, Callback callback);

  // Starts dispatching: background on a new detached thread, foreground on
  // the calling thread (returns when stopped). Does nothing once finished.
  // In background mode returns only when the dispatcher is running.
  void processSignalsImpl(ProcessingMode mode);
  void processSignals() { processSignalsImpl(background); }

  // Asks the dispatcher to end and waits until the state is finished.
  // Must not be called from a callback.
  void stop();

  // After stop(): lets sig take its default effect on the process (normally
  // ending it); returns only when the default effect is to ignore it.
  void defaultAction(int sig);

  // Observer for the dispatcher's progress (tests and diagnostics).
  void setObserver(Observer observer);

  State state();
  // The dispatcher's thread while running; 0 otherwise.
  ThreadId dispatcherThread();

  // Separate instances exist only for tests; the programs use getInstance().
  SignalProcessing() = default;
  SignalProcessing(const SignalProcessing&) = delete;
  SignalProcessing& operator=(const SignalProcessing&) = delete;

 private:
  void requestStop();  // with mMutex held
  void unixDispatch();
  void dispatchOne(int sig);
  void report(Progress progress, int sig);

  Mutex mMutex;
  Condition mCond;
  CallbackMap mCallbacks;
  State mState = unconfigured;
  int mPendingWakeUps = 0;
  ThreadId mDispatcher = 0;
  Observer mObserver;
};

#endif  // HIVE_UTIL_SIGNALPROCESSING_H_
