#include "util/Time.h"

#include <limits>

namespace {
const long kNanosPerSecond = 1000000000L;
}

const Time Time::min(std::numeric_limits<int64_t>::min(), 0);
const Time Time::max(std::numeric_limits<int64_t>::max(), kNanosPerSecond - 1);
const Time Time::null(0, 0);
const Time Time::nonexistent(std::numeric_limits<int64_t>::min(), 1);

Time::Time(int64_t seconds, long nanos)
    : mNative(seconds + nanos / kNanosPerSecond), mNanos(static_cast<int>(nanos % kNanosPerSecond)) {
  normalize();
}

Time::Time(const timespec& ts) : Time(ts.tv_sec, ts.tv_nsec) {}

Time Time::now() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return Time(tv.tv_sec, static_cast<long>(tv.tv_usec) * 1000);
}

void Time::addNanos(long n) {
  mNative += n / kNanosPerSecond;
  mNanos += static_cast<int>(n % kNanosPerSecond);
  normalize();
}

void Time::normalize() {
  if (mNanos > kNanosPerSecond - 1) {
    mNanos -= kNanosPerSecond;
    ++mNative;
  } else if (mNanos < 0) {
    mNanos += kNanosPerSecond;
    --mNative;
  }
}
