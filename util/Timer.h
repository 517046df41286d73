// Stopwatch of intervals with their count, shortest and longest.
#ifndef HIVE_UTIL_TIMER_H_
#define HIVE_UTIL_TIMER_H_

#include "util/Ticks.h"

class Timer {
 public:
  Timer() = default;
  virtual ~Timer() = default;

  // Starts (or restarts) an interval at t.
  void start(Ticks t = Ticks::currentTime());
  // Ends the running interval at now and counts it; no effect when stopped.
  void stop(Ticks now = Ticks::currentTime());
  // Back to all zero, not running.
  void reset();
  // Seconds of the running interval up to now; 0.0 when stopped.
  double currentSeconds(Ticks now = Ticks::currentTime()) const;
  // Counts d as one completed interval.
  void addInterval(const Ticks& d);
  // Adds another stopped timer's statistics; both must be stopped.
  Timer& operator+=(const Timer& t);

  bool running() const { return mIsRunning; }
  Ticks totalTime() const { return mTotalTime; }
  Ticks shortest() const { return mShortest; }
  Ticks longest() const { return mLongest; }
  int numIntervals() const { return mNumIntervals; }
  double totalSeconds() const { return mTotalTime.seconds(); }

 private:
  Ticks mStartTime;
  Ticks mTotalTime;
  Ticks mShortest;
  Ticks mLongest;
  int mNumIntervals = 0;
  bool mIsRunning = false;
};

#endif  // HIVE_UTIL_TIMER_H_
