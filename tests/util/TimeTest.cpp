#include "util/Time.h"

#include <gtest/gtest.h>

#include "util/Ticks.h"
#include "util/Timer.h"

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

  const timeval tv = Time(3, 123456789).toTimeval();
  EXPECT_EQ(3, tv.tv_sec);
  EXPECT_EQ(123456, tv.tv_usec);
  EXPECT_LT(Time(2, 999999999), Time(3, 0));
  // A negative tick difference reads as a large positive value.
  EXPECT_GT(Ticks(-1).seconds(), 1000000.0);
}

TEST(TimeTest, TimerCountsIntervals) {
  Timer timer;
  timer.stop(Ticks(100));  // not running: nothing changes
  EXPECT_EQ(0, timer.numIntervals());

  timer.start(Ticks(1000));
  EXPECT_DOUBLE_EQ(0.5e-6, timer.currentSeconds(Ticks(1500)));
  timer.stop(Ticks(1300));
  EXPECT_EQ(Ticks(300), timer.shortest());
  EXPECT_EQ(Ticks(300), timer.longest());
  timer.start(Ticks(2000));
  timer.stop(Ticks(2100));
  timer.addInterval(Ticks(700));
  EXPECT_EQ(3, timer.numIntervals());
  EXPECT_EQ(Ticks(1100), timer.totalTime());
  EXPECT_EQ(Ticks(100), timer.shortest());
  EXPECT_EQ(Ticks(700), timer.longest());

  Timer other;
  other.addInterval(Ticks(50));
  other.addInterval(Ticks(900));
  timer += other;
  EXPECT_EQ(5, timer.numIntervals());
  EXPECT_EQ(Ticks(2050), timer.totalTime());
  EXPECT_EQ(Ticks(50), timer.shortest());
  EXPECT_EQ(Ticks(900), timer.longest());

  timer.reset();
  timer.start(Ticks(10));
  timer.stop(Ticks(5010));  // first interval after reset sets both extremes
  EXPECT_EQ(Ticks(5000), timer.shortest());
  EXPECT_EQ(Ticks(5000), timer.longest());
}
