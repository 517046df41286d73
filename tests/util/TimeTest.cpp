#include "util/Time.h"

#include <gtest/gtest.h>

#include <vector>

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

namespace {

// Count, total, shortest and longest interval in nanoseconds.
std::vector<int64_t> stats(const Timer& t) {
  return {t.numIntervals(), t.totalTime().nanos(), t.shortest().nanos(), t.longest().nanos()};
}

}  // namespace

TEST(TimeTest, TimerCountsIntervals) {
  Timer timer;
  timer.stop(Ticks(100));  // not running: nothing changes
  EXPECT_EQ(0, timer.numIntervals());

  timer.start(Ticks(1000));
  EXPECT_DOUBLE_EQ(0.5e-6, timer.currentSeconds(Ticks(1500)));
  timer.stop(Ticks(1300));
  EXPECT_EQ(stats(timer), (std::vector<int64_t>{1, 300, 300, 300}));
  timer.start(Ticks(2000));
  timer.stop(Ticks(2100));
  timer.addInterval(Ticks(700));
  EXPECT_EQ(stats(timer), (std::vector<int64_t>{3, 1100, 100, 700}));

  Timer other;
  other.addInterval(Ticks(50));
  other.addInterval(Ticks(900));
  timer += other;
  EXPECT_EQ(stats(timer), (std::vector<int64_t>{5, 2050, 50, 900}));

  timer.reset();
  timer.start(Ticks(10));
  timer.stop(Ticks(5010));  // the first interval after a reset sets both extremes
  EXPECT_EQ(stats(timer), (std::vector<int64_t>{1, 5000, 5000, 5000}));
}
