#include "hopper/MultiBaseCounter.h"

#include <algorithm>
#include <stdexcept>

MultiBaseCounter::MultiBaseCounter(const std::vector<uint64_t>& bases)
    : mDigitBases(bases), mDigits(bases.size(), 0) {
  if (std::find(bases.begin(), bases.end(), 0) != bases.end()) {
    throw std::runtime_error("MultiBaseCounter: bases must be at least 1.");
  }
}

MultiBaseCounter& MultiBaseCounter::operator++() {
  if (reachedMax()) {
    mIsValid = false;
    return *this;
  }
  // Not at the maximum, so some digit below its top absorbs the carry.
  for (size_t i = mDigits.size(); i-- > 0;) {
    if (++mDigits[i] < mDigitBases[i]) break;
    mDigits[i] = 0;
  }
  return *this;
}

bool MultiBaseCounter::reachedMax() const {
  return std::equal(mDigits.begin(), mDigits.end(), mDigitBases.begin(),
                    [](uint64_t digit, uint64_t base) { return digit == base - 1; });
}
