// Turns asynchronous POSIX signals into ordinary calls on a dispatcher thread.
// The main thread blocks the signals (block()) before any other thread
// exists, configures one callback per signal and starts the dispatcher, which
// waits for them (sigwait) and runs the callbacks without holding any lock;
// stop() it before destroying what they use. SIGILL is its wake-up signal.
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
    // Binds callback to sig; returns the previous one. Never SIGILL (4).
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

  // Only in state unconfigured or finished; every callback must be set.
  void configure(const Configuration& configuration);
  // Binds one callback to every signal of the list and configures.
  void configureRange(const std::vector<int>& signals, Callback callback);

  // Dispatches on a new detached thread (returning once it runs) or on the
  // calling thread (returning when stopped). Does nothing once finished.
  void processSignalsImpl(ProcessingMode mode);
  void processSignals() { processSignalsImpl(background); }

  // Ends the dispatcher and waits until finished; never from a callback.
  void stop();

  // After stop(): lets sig take its default effect (normally ending the
  // process); returns only when that effect is to ignore it.
  void defaultAction(int sig);

  // Observer for the dispatcher's progress (tests and diagnostics).
  void setObserver(Observer observer);

  State state();

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
  int mPendingWakeUps = 0;  // wake-ups sent and not yet taken
  ThreadId mDispatcher = 0;
  Observer mObserver;
};

#endif  // HIVE_UTIL_SIGNALPROCESSING_H_
