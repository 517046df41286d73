// Host pattern expansion (parseNodesArg). Inputs are at most 256 bytes and
// skipped when a range bound has more than four digits or a word would
// expand to more than 100000 hosts, so each run stays small. When the value
// parses, the hosts are non-empty and distinct, and there are no more of
// them than the words' expansions together.
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "hopper/StringExpander.h"
#include "tests/fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::regex longNumber("[0-9]{5}");
  std::string value(reinterpret_cast<const char*>(data), size);
  value = value.substr(0, value.find('\0'));  // the option value is a C string
  if (size > 256 || std::regex_search(value, longNumber)) return 0;
  size_t bound = 0;
  std::istringstream words(value);  // split at the blanks the option allows
  std::vector<std::string> nodes;
  try {
    for (std::string word; words >> word;) {
      std::vector<std::string> literals;
      std::vector<std::vector<std::string>> patterns;
      StringExpander::tokenize(word, literals, patterns);
      FUZZ_CHECK(literals.size() == patterns.size() + 1);
      size_t product = 1;
      for (const auto& alternatives : patterns) {
        if ((product *= alternatives.size()) > 100000) return 0;
      }
      bound += product;
    }
    parseNodesArg(value.c_str(), nodes);
  } catch (const std::runtime_error&) {
    return 0;
  }
  FUZZ_CHECK(nodes.size() <= bound);
  std::set<std::string> seen;
  for (const std::string& node : nodes) FUZZ_CHECK(!node.empty() && seen.insert(node).second);
  return 0;
}
