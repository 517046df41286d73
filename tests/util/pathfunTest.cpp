#include "util/pathfun.h"

#include <gtest/gtest.h>

TEST(pathfunTest, SplitAndConcatenate) {
  using Parts = std::vector<std::string>;
  const struct { const char* path; bool absolute; Parts parts; } splits[] = {
      {"/", true, {"/"}}, {"", false, {""}}, {"//a///b/", true, {"/", "a", "b"}}, {"a/b", false, {"a", "b"}}};
  for (const auto& c : splits) {
    std::vector<Range> ranges;
    EXPECT_EQ(c.absolute, splitPath(c.path, ranges)) << c.path;
    Parts parts;
    for (const Range& r : ranges) parts.push_back(std::string(c.path).substr(r.first, r.second - r.first));
    EXPECT_EQ(c.parts, parts) << c.path;
  }
  const struct { const char *dir, *name, *joined; } joins[] = {
      {"dir/", "f", "dir/f"}, {"dir", "f", "dir/f"}, {"dir", "/abs", "/abs"}, {"", "f", "f"}, {"dir", "", "dir"}};
  for (const auto& c : joins) EXPECT_EQ(c.joined, pathConcat(c.dir, c.name)) << c.dir << " + " << c.name;
}
