#include "util/Time.h"

#include <gtest/gtest.h>

#include "util/Ticks.h"
#include "util/Timer.h"

// Deadlines are built with these; a nanosecond part outside [0, 1e9) makes
// the timed waits fail.
TEST(TimeTest, NanosecondsAreNormalised) {
  const Time t(5, 1500000000);
  EXPECT_EQ(6, t.seconds());
  EXPECT_EQ(500000000, t.nanos());
  Time u(10, 0);
  u.addNanos(-1);
  EXPECT_EQ(9, u.seconds());
  EXPECT_EQ(999999999, u.nanos());
  u.addNanos(-2499999999L);
  EXPECT_EQ(7, u.seconds());
  EXPECT_EQ(500000000, u.nanos());
  u.addNanos(500000000);
  EXPECT_EQ(8, u.seconds());
  EXPECT_EQ(0, u.nanos());
  const timeval tv = Time(3, 123456789).toTimeval();
  EXPECT_EQ(3, tv.tv_sec);
  EXPECT_EQ(123456, tv.tv_usec);
  EXPECT_LT(Time(2, 999999999), Time(3, 0));

  Timer timer;
  timer.stop(Ticks(100));  // not running: nothing changes
  timer.start(Ticks(1000));
  timer.stop(Ticks(1300));
  timer.start(Ticks(2000));
  timer.stop(Ticks(2100));
  EXPECT_EQ(400, timer.totalTime().nanos());
}
