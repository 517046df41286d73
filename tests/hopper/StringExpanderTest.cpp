#include "hopper/StringExpander.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "support/Thrown.h"

namespace {

using Words = std::vector<std::string>;

Words nodesOf(const char* value) {
  Words nodes;
  parseNodesArg(value, nodes);
  return nodes;
}

}  // namespace

TEST(StringExpanderTest, ExpandsPatternsAndRemovesDuplicates) {
  const Words documented = {"host1", "host2", "host3", "host5", "host7", "host-a", "host-b", "host-c"};
  EXPECT_EQ(documented, nodesOf("host[1-3] host[5,7] host-[a-c]"));
  // Several patterns in one word: the rightmost varies fastest.
  EXPECT_EQ(Words({"h1xay", "h1xby", "h2xay", "h2xby"}), nodesOf("h[1-2]x[a-b]y"));
  EXPECT_EQ(Words({"n1", "n2", "n3", "n7", "na", "nb", "nz"}), nodesOf("n[,1-3,,7,a-b,z,]"));
  EXPECT_EQ(Words({"h8", "h9", "h10", "h1:2000"}), nodesOf("h[008-010]\t{h}{1}:2000"));
  EXPECT_EQ(Words({"h5", "xa"}), nodesOf("h[5-5] x[a-a]"));  // a range of one value
  // Duplicates go, the first occurrence stays; comparison is exact.
  EXPECT_EQ(Words({"h2", "h1", "H1", "h1:2000", "h3"}), nodesOf("h2 h[1-2] H1 h1:2000 h{1-3} h[1,1]"));
}

TEST(StringExpanderTest, RejectsMalformedPatternsWithTheirMessages) {
  const std::pair<const char*, const char*> faults[] = {
      {"h[3-1]", "Lower bound must be <= upper bound: 3-1"}, {"h[a-C]", "Lower bound must be <= upper bound: a-C"},
      {"h[1-a]", "Invalid range: 1-a"}, {"h[1-]", "Invalid range: 1-"},
      {"h[2,-1]", "Invalid range: -1"}, {"h[1-2-3]", "Invalid range: 1-2-3"},
      {"h[ab-c]", "Character ranges must be for single characters: ab-c"},
      {"h{1-2]", "Unterminated pattern in word: {1-2]"}, {"h[1]y[x", "Unterminated pattern in word: [x"},
      {"h[a[b]]", "Pattern \"a[b\" contains illegal character '['."}, {"h[a}]", "Pattern \"a}\" contains illegal character '}'."},
      {"h[,]", "MultiBaseCounter: bases must be at least 1."}};
  for (const auto& [word, message] : faults) {
    Words nodes;
    const std::string value = std::string("a[1-2] ") + word + " c";
    EXPECT_EQ(message, thrownMessage<std::runtime_error>([&] { parseNodesArg(value.c_str(), nodes); }));
    EXPECT_EQ(Words({"a1", "a2"}), nodes) << word;  // nothing from the faulty word on
  }
}
