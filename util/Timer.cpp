#include "util/Timer.h"

#include "util/Assert.h"

void Timer::start(Ticks t) {
  mStartTime = t;
  mIsRunning = true;
}

void Timer::stop(Ticks now) {
  if (!mIsRunning) return;
  addInterval(now - mStartTime);
  mIsRunning = false;
}

void Timer::reset() { *this = Timer(); }

double Timer::currentSeconds(Ticks now) const {
  return mIsRunning ? (now - mStartTime).seconds() : 0.0;
}

void Timer::addInterval(const Ticks& d) {
  mTotalTime += d;
  if (mNumIntervals == 0 || d < mShortest) mShortest = d;
  if (d > mLongest) mLongest = d;
  ++mNumIntervals;
}

Timer& Timer::operator+=(const Timer& t) {
  HC_ASSERT(!running() && !t.running());
  mTotalTime += t.mTotalTime;
  mNumIntervals += t.mNumIntervals;
  // A plain minimum, kept as the statistics always had it: an added timer
  // without intervals brings its shortest of 0 along.
  if (t.mShortest < mShortest) mShortest = t.mShortest;
  if (t.mLongest > mLongest) mLongest = t.mLongest;
  return *this;
}
