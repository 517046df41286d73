// StringExpander: expansion of the host patterns given to --hosts.
//
// A host word may hold range and list patterns in square brackets or braces:
// "host[1-3]" gives host1, host2, host3; "host[5,7]" gives host5, host7;
// "host-{a-c}" gives host-a, host-b, host-c.  Patterns do not nest.  A word
// with several patterns yields every combination, the rightmost pattern
// varying fastest.  Malformed patterns raise std::runtime_error with a text
// meant for the user.

#ifndef HIVE_HOPPER_STRINGEXPANDER_H_
#define HIVE_HOPPER_STRINGEXPANDER_H_

#include <string>
#include <vector>

class StringExpander {
 public:
  // Appends every expansion of word to out.  A word without patterns is
  // appended once, unchanged.
  static void expand(const std::string& word, std::vector<std::string>& out);

  // Replaces literals and patterns with the pieces of word: the literal texts
  // around the patterns (always one more than patterns) and, for each
  // pattern, its list of alternatives.
  static void tokenize(const std::string& word, std::vector<std::string>& literals,
                       std::vector<std::vector<std::string>>& patterns);

  // Appends the alternatives described by the text between one pair of
  // brackets: items separated by commas or white space, each a plain value,
  // a decimal range "8-10" or a one-character range "a-c".
  static void parsePattern(const std::string& content,
                           std::vector<std::string>& alternatives);
};

// Appends the hosts of all white-space-separated words of value to nodes,
// expanded, then removes duplicates keeping the first occurrence and the
// order of the rest.  Throws std::runtime_error at the first malformed word.
void parseNodesArg(const char* value, std::vector<std::string>& nodes);

#endif  // HIVE_HOPPER_STRINGEXPANDER_H_
