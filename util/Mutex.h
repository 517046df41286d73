// Non-recursive mutex and its scoped lock. The lock can be released and
// re-taken inside its scope, which is what a Condition wait needs.
#ifndef HIVE_UTIL_MUTEX_H_
#define HIVE_UTIL_MUTEX_H_

#include <mutex>

class Condition;

class Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // Standard Lockable interface, so std::lock_guard<Mutex> works too.
  void lock() { mMutex.lock(); }
  void unlock() { mMutex.unlock(); }
  bool try_lock() { return mMutex.try_lock(); }

  // Scoped lock: locks on construction, unlocks on destruction if held.
  class Lock {
   public:
    explicit Lock(Mutex& m) : mLock(m.mMutex) {}
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    void lock() { mLock.lock(); }
    void unlock() { mLock.unlock(); }

   private:
    friend class Condition;
    std::unique_lock<std::mutex> mLock;
  };

 private:
  std::mutex mMutex;
};

#endif  // HIVE_UTIL_MUTEX_H_
