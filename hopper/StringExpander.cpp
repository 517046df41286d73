#include "hopper/StringExpander.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <unordered_set>

#include "hopper/MultiBaseCounter.h"

namespace {

const char kSeparators[] = ", \v\f\t\r\n";

bool allDigits(const std::string& s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Out-of-range bounds convert as strtol does and are cut to 32 bits.
int32_t toInt32(const std::string& s) {
  return static_cast<int32_t>(std::strtol(s.c_str(), nullptr, 10));
}

void addItem(const std::string& item, std::vector<std::string>& out) {
  const size_t dash = item.find('-');
  if (dash == std::string::npos) {
    out.push_back(item);
    return;
  }
  // An empty bound is refused, so "-5" is not a negative number either.
  if (item.front() == '-' || item.back() == '-') {
    throw std::runtime_error("Invalid range: " + item);
  }
  const std::string low = item.substr(0, dash);
  const std::string high = item.substr(dash + 1);
  // A decimal lower bound makes a numeric range, any other a character one.
  const bool numeric = allDigits(low);
  int64_t from = 0;
  int64_t to = 0;
  if (numeric) {
    if (!allDigits(high)) throw std::runtime_error("Invalid range: " + item);
    from = toInt32(low);
    to = toInt32(high);
  } else {
    if (low.size() != 1 || high.size() != 1) {
      throw std::runtime_error("Character ranges must be for single characters: " + item);
    }
    from = static_cast<signed char>(low[0]);
    to = static_cast<signed char>(high[0]);
  }
  if (from > to) throw std::runtime_error("Lower bound must be <= upper bound: " + item);
  // Plain decimal without padding: [08-10] gives 8, 9, 10.
  for (int64_t n = from; n <= to; ++n) {
    out.push_back(numeric ? std::to_string(n) : std::string(1, static_cast<char>(n)));
  }
}

}  // namespace

void StringExpander::parsePattern(const std::string& content,
                                  std::vector<std::string>& alternatives) {
  const size_t bad = content.find_first_of("{}[]");
  if (bad != std::string::npos) {
    throw std::runtime_error("Pattern \"" + content + "\" contains illegal character '" +
                             content[bad] + "'.");
  }
  size_t pos = content.find_first_not_of(kSeparators);
  while (pos != std::string::npos) {
    const size_t end = content.find_first_of(kSeparators, pos);
    addItem(content.substr(pos, end == std::string::npos ? std::string::npos : end - pos),
            alternatives);
    pos = content.find_first_not_of(kSeparators, end);
  }
}

void StringExpander::tokenize(const std::string& word, std::vector<std::string>& literals,
                              std::vector<std::vector<std::string>>& patterns) {
  literals.clear();
  patterns.clear();
  size_t pos = 0;
  for (;;) {
    const size_t opener = word.find_first_of("{[", pos);
    if (opener == std::string::npos) {
      literals.push_back(word.substr(pos));
      return;
    }
    // A brace is closed only by a brace, a bracket only by a bracket.
    const char closeChar = word[opener] == '{' ? '}' : ']';
    const size_t closer = word.find(closeChar, opener + 1);
    if (closer == std::string::npos) {
      throw std::runtime_error("Unterminated pattern in word: " + word.substr(opener));
    }
    literals.push_back(word.substr(pos, opener - pos));
    patterns.emplace_back();
    parsePattern(word.substr(opener + 1, closer - opener - 1), patterns.back());
    pos = closer + 1;
  }
}

void StringExpander::expand(const std::string& word, std::vector<std::string>& out) {
  std::vector<std::string> literals;
  std::vector<std::vector<std::string>> patterns;
  tokenize(word, literals, patterns);

  std::vector<uint64_t> bases;
  for (const auto& alternatives : patterns) bases.push_back(alternatives.size());
  for (MultiBaseCounter counter(bases); counter.isValid(); ++counter) {
    std::string host = literals[0];
    for (size_t i = 0; i < patterns.size(); ++i) {
      host += patterns[i][counter[i]];
      host += literals[i + 1];
    }
    out.push_back(host);
  }
}

void parseNodesArg(const char* value, std::vector<std::string>& nodes) {
  if (value != nullptr) {
    std::istringstream words(value);
    std::string word;
    while (words >> word) StringExpander::expand(word, nodes);
  }
  std::unordered_set<std::string> seen;
  nodes.erase(std::remove_if(nodes.begin(), nodes.end(),
                             [&seen](const std::string& n) { return !seen.insert(n).second; }),
              nodes.end());
}
