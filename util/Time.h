// Wall-clock time (seconds since the epoch and nanoseconds).
#ifndef HIVE_UTIL_TIME_H_
#define HIVE_UTIL_TIME_H_

#include <sys/time.h>

#include <cstdint>
#include <ctime>

class Time {
 public:
  static const Time min;          // earliest representable time
  static const Time max;          // latest representable time
  static const Time null;         // the epoch, "no time given"
  static const Time nonexistent;  // marks a file time that does not exist

  Time() = default;
  // Nanoseconds of a second or more carry into the seconds.
  Time(int64_t seconds, long nanos);
  explicit Time(const timespec& ts);

  // Current wall-clock time (microsecond resolution).
  static Time now();

  // Shift in place; negative values work.
  void addNanos(long n);
  void addSeconds(long n) { mNative += n; }

  int64_t seconds() const { return mNative; }
  int nanos() const { return mNanos; }

  bool operator==(const Time& o) const { return mNative == o.mNative && mNanos == o.mNanos; }
  bool operator<(const Time& o) const {
    return mNative < o.mNative || (mNative == o.mNative && mNanos < o.mNanos);
  }

 private:
  void normalize();

  int64_t mNative = 0;
  int mNanos = 0;
};

#endif  // HIVE_UTIL_TIME_H_
