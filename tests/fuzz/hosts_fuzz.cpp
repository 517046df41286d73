// Host pattern expansion (parseNodesArg). Inputs are at most 256 bytes and
// skipped when a range bound has more than four digits or a word would
// expand to more than 100000 hosts, so each run stays small. When the value
// parses, the hosts are non-empty and distinct, and there are no more of
// them than the words' expansions together.
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "hopper/StringExpander.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

const size_t kMaxHosts = 100000;

bool longNumber(const std::string& s) {
  size_t run = 0;
  for (char c : s) {
    run = (c >= '0' && c <= '9') ? run + 1 : 0;
    if (run > 4) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 256) return 0;
  std::string value(reinterpret_cast<const char*>(data), size);
  value = value.substr(0, value.find('\0'));  // the option value is a C string
  if (longNumber(value)) return 0;

  // The expansion size of each word, from the pieces the expander sees.
  size_t bound = 0;
  size_t begin = 0;
  while (begin < value.size()) {
    const size_t end = value.find_first_of(" \t\n\v\f\r", begin);
    const std::string word = value.substr(begin, end == std::string::npos ? end : end - begin);
    begin = end == std::string::npos ? value.size() : end + 1;
    if (word.empty()) continue;
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
