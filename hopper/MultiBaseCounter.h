// MultiBaseCounter: an odometer whose digits each have their own base.
//
// StringExpander uses it to enumerate every combination of the alternatives
// of the patterns in one host word: digit i selects an alternative of
// pattern i, and the rightmost digit varies fastest.

#ifndef HIVE_HOPPER_MULTIBASECOUNTER_H_
#define HIVE_HOPPER_MULTIBASECOUNTER_H_

#include <cstddef>
#include <cstdint>
#include <vector>

class MultiBaseCounter {
 public:
  // Starts at all digits 0 and valid.  Throws std::runtime_error when any
  // base is 0 (no digit value would exist).
  explicit MultiBaseCounter(const std::vector<uint64_t>& bases);

  // Steps to the next combination; stepping past the maximum (or any step of
  // a counter without digits) makes the counter invalid instead.
  MultiBaseCounter& operator++();

  // The current value of digit i (i < size()).
  uint64_t operator[](size_t i) const { return mDigits[i]; }
  // The number of digits.
  size_t size() const { return mDigits.size(); }
  // False once the counter has been stepped past its maximum.
  bool isValid() const { return mIsValid; }
  // True when every digit is at its base minus 1, or there are no digits.
  bool reachedMax() const;

 private:
  std::vector<uint64_t> mDigitBases;
  std::vector<uint64_t> mDigits;
  bool mIsValid = true;
};

#endif  // HIVE_HOPPER_MULTIBASECOUNTER_H_
