// Expansion of --hosts patterns: "host[1-3]", "host[5,7]", "host-{a-c}"
// (no nesting); several give every combination, the rightmost varying
// fastest. Malformed patterns raise std::runtime_error with a user's text.
#ifndef HIVE_HOPPER_STRINGEXPANDER_H_
#define HIVE_HOPPER_STRINGEXPANDER_H_

#include <string>
#include <vector>

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
