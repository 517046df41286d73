// Expansion of --hosts patterns: "host[1-3]", "host[5,7]", "host-{a-c}"
// (no nesting); several give every combination, the rightmost varying
// fastest. Malformed patterns raise std::runtime_error with a user's text.
#ifndef HIVE_HOPPER_STRINGEXPANDER_H_
#define HIVE_HOPPER_STRINGEXPANDER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// An odometer whose digits each have their own base: digit i selects an
// alternative of pattern i.
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

class StringExpander {
 public:
  // Appends every expansion of word (itself when it has no pattern) to out.
  static void expand(const std::string& word, std::vector<std::string>& out);

  // Replaces literals and patterns with the pieces of word: the texts around
  // the patterns (one more than patterns) and each pattern's alternatives.
  static void tokenize(const std::string& word, std::vector<std::string>& literals,
                       std::vector<std::vector<std::string>>& patterns);

  // Appends the alternatives of one pattern's content: items separated by
  // commas or white space, each a value, "8-10" or "a-c".
  static void parsePattern(const std::string& content,
                           std::vector<std::string>& alternatives);
};

// Appends the expanded words of value to nodes, then removes duplicates
// keeping first occurrences in order. Throws at the first malformed word.
void parseNodesArg(const char* value, std::vector<std::string>& nodes);

#endif  // HIVE_HOPPER_STRINGEXPANDER_H_
