// MultiBaseCounter: an odometer whose digits each have their own base.
// StringExpander enumerates the combinations of one host word's patterns
// with it: digit i selects an alternative of pattern i.
#ifndef HIVE_HOPPER_MULTIBASECOUNTER_H_
#define HIVE_HOPPER_MULTIBASECOUNTER_H_

#include <cstddef>
#include <cstdint>
#include <vector>

class MultiBaseCounter {
 public:
  // All digits 0 and valid; throws std::runtime_error when any base is 0.
  explicit MultiBaseCounter(const std::vector<uint64_t>& bases);
  // The next combination; past the maximum the counter becomes invalid.
  MultiBaseCounter& operator++();
  uint64_t operator[](size_t i) const { return mDigits[i]; }
  size_t size() const { return mDigits.size(); }
  bool isValid() const { return mIsValid; }
  // Every digit at its base minus 1, or no digits.
  bool reachedMax() const;

 private:
  std::vector<uint64_t> mDigitBases;
  std::vector<uint64_t> mDigits;
  bool mIsValid = true;
};

#endif  // HIVE_HOPPER_MULTIBASECOUNTER_H_
