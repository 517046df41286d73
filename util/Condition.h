// Condition variable used together with Mutex::Lock.
#ifndef HIVE_UTIL_CONDITION_H_
#define HIVE_UTIL_CONDITION_H_

#include <condition_variable>

#include "util/Mutex.h"
#include "util/Time.h"

class Condition {
 public:
  Condition() = default;
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  // Releases the lock while waiting until pred() is true.
  template <typename Pred>
  void wait(Mutex::Lock& lock, Pred pred) { mCond.wait(lock.mLock, pred); }

  // Waits until woken or the wall-clock deadline; false when it passed.
  bool waitUntil(Mutex::Lock& lock, const Time& deadline);

  // Waits until pred() or ms milliseconds have passed; the final pred().
  template <typename Pred>
  bool waitFor(Mutex::Lock& lock, long ms, Pred pred) {
    return mCond.wait_for(lock.mLock, std::chrono::milliseconds(ms), pred);
  }

  void signal() { mCond.notify_one(); }
  void broadcast() { mCond.notify_all(); }

 private:
  std::condition_variable mCond;
};

#endif  // HIVE_UTIL_CONDITION_H_
