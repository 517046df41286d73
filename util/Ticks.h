// A monotonic clock reading in nanoseconds from a process-wide origin.
#ifndef HIVE_UTIL_TICKS_H_
#define HIVE_UTIL_TICKS_H_

#include <cstdint>

class Ticks {
 public:
  Ticks() = default;
  explicit Ticks(int64_t nanos) : mTicks(nanos) {}

  // Current monotonic reading. Throws ErrnoException("clock_gettime") on
  // failure. Make the first call on the main thread before threads start.
  static Ticks currentTime();

  // Seconds of the low 50 bits (a negative difference reads large).
  double seconds() const;
  int64_t nanos() const { return mTicks; }

  Ticks operator-(const Ticks& o) const { return Ticks(mTicks - o.mTicks); }
  Ticks operator+(const Ticks& o) const { return Ticks(mTicks + o.mTicks); }
  Ticks& operator+=(const Ticks& o) { mTicks += o.mTicks; return *this; }
  bool operator<(const Ticks& o) const { return mTicks < o.mTicks; }
  bool operator>(const Ticks& o) const { return mTicks > o.mTicks; }
  bool operator==(const Ticks& o) const { return mTicks == o.mTicks; }
  bool operator!=(const Ticks& o) const { return mTicks != o.mTicks; }

 private:
  int64_t mTicks = 0;
};

#endif  // HIVE_UTIL_TICKS_H_
