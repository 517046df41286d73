#include "util/Time.h"

#include <gtest/gtest.h>

#include "util/Ticks.h"
#include "util/Timer.h"

// Deadlines are built with these; a nanosecond part outside [0, 1e9) makes
// the timed waits fail.
TEST(TimeTest, NanosecondsAreNormalisedAndTimersAddUp) {
  const auto is = [](const Time& t, long seconds, long nanos) {
    return t.seconds() == seconds && t.nanos() == nanos;
  };
  EXPECT_TRUE(is(Time(5, 1500000000), 6, 500000000));
  Time u(10, 0);
  u.addNanos(-1);
  EXPECT_TRUE(is(u, 9, 999999999));
  u.addNanos(-2499999999L);
  EXPECT_TRUE(is(u, 7, 500000000));
  u.addNanos(500000000);
  EXPECT_TRUE(is(u, 8, 0));
  const timeval tv = Time(3, 123456789).toTimeval();
  EXPECT_TRUE(tv.tv_sec == 3 && tv.tv_usec == 123456);
  EXPECT_LT(Time(2, 999999999), Time(3, 0));

  Timer timer;
  timer.stop(Ticks(100));  // not running: nothing changes
  timer.start(Ticks(1000));
  timer.stop(Ticks(1300));
  timer.start(Ticks(2000));
  timer.stop(Ticks(2100));
  EXPECT_EQ(400, timer.totalTime().nanos());
  // Sums: totals and counts add, the extremes are the smaller and the larger
  // ones; an empty timer's shortest (0) takes part like any other.
  Timer other;
  other.addInterval(Ticks(50));
  other.addInterval(Ticks(500));
  Timer sum = timer;
  sum += other;
  EXPECT_EQ(50, sum.shortest().nanos());
  EXPECT_EQ(500, sum.longest().nanos());
  EXPECT_EQ(950, sum.totalTime().nanos());
  EXPECT_EQ(4, sum.numIntervals());
  sum += Timer();
  EXPECT_EQ(0, sum.shortest().nanos());
}
