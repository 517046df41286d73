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

static const size_t kMaxHosts = 100000;
static const std::regex kLongNumber("[0-9]{5}");

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 256) return 0;
  std::string value(reinterpret_cast<const char*>(data), size);
  value = value.substr(0, value.find('\0'));  // the option value is a C string
  if (std::regex_search(value, kLongNumber)) return 0;

  // The expansion size of each word, from the pieces the expander sees.
  size_t bound = 0;
  std::istringstream words(value);  // split at the blanks the option allows
  for (std::string word; words >> word;) {
    std::vector<std::string> literals;
    std::vector<std::vector<std::string>> patterns;
    try {
      StringExpander::tokenize(word, literals, patterns);
    } catch (const std::runtime_error&) {
      return 0;  // parseNodesArg must refuse it too; checked below
    }
    FUZZ_CHECK(literals.size() == patterns.size() + 1);
    size_t product = 1;
    for (const auto& alternatives : patterns) {
      product *= alternatives.size();
      if (product > kMaxHosts) return 0;
    }
    bound += product;
  }

  std::vector<std::string> nodes;
  try {
    parseNodesArg(value.c_str(), nodes);
  } catch (const std::runtime_error&) {
    return 0;
  }
  FUZZ_CHECK(nodes.size() <= bound);
  std::set<std::string> seen;
  for (const std::string& node : nodes) {
    FUZZ_CHECK(!node.empty());
    FUZZ_CHECK(seen.insert(node).second);
  }
  return 0;
}
