#include "util/Ticks.h"

#include <cerrno>
#include <ctime>

#include "util/StringUtilities.h"

namespace {

timespec readMonotonic() {
  timespec ts;
  if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) throw ErrnoException("clock_gettime", errno);
  return ts;
}

// Whole seconds of the first reading; keeps readings small.
int64_t origin() {
  static const int64_t sOrigin = readMonotonic().tv_sec;
  return sOrigin;
}

}  // namespace

Ticks Ticks::currentTime() {
  const int64_t base = origin();
  const timespec ts = readMonotonic();
  return Ticks((static_cast<int64_t>(ts.tv_sec) - base) * 1000000000LL + ts.tv_nsec);
}

double Ticks::seconds() const {
  return static_cast<double>(mTicks & 0x3ffffffffffffLL) / 1000000000.0;
}
