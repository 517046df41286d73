#include "util/Condition.h"

#include <chrono>

namespace {
// Beyond this a deadline means "never" and would overflow the clock's range.
const int64_t kFarFutureSeconds = int64_t(1) << 33;
}  // namespace

bool Condition::waitUntil(Mutex::Lock& lock, const Time& deadline) {
  using namespace std::chrono;
  if (deadline.seconds() >= kFarFutureSeconds) {
    mCond.wait(lock.mLock);
    return true;
  }
  const system_clock::time_point when =
      system_clock::time_point(duration_cast<system_clock::duration>(
          seconds(deadline.seconds()) + nanoseconds(deadline.nanos())));
  return mCond.wait_until(lock.mLock, when) == std::cv_status::no_timeout;
}
