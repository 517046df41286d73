#include "util/Time.h"

#include <gtest/gtest.h>

#include "util/Timer.h"

// Deadlines are built with these; nanoseconds outside [0, 1e9) fail waits.
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

  Timer timer, other;
  timer.stop(Ticks(100));  // not running: nothing changes
  timer.start(Ticks(1000));
  timer.stop(Ticks(1300));
  other.addInterval(Ticks(50));
  other.addInterval(Ticks(500));
  timer += other;
  EXPECT_EQ(50, timer.shortest().nanos());
  EXPECT_EQ(500, timer.longest().nanos());
  EXPECT_EQ(850, timer.totalTime().nanos());
  EXPECT_EQ(3, timer.numIntervals());
}
