// Pure string functions on file paths; they never touch the file system.
// The only separator on this platform is '/'.
#ifndef HIVE_UTIL_PATHFUN_H_
#define HIVE_UTIL_PATHFUN_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "util/StringUtilities.h"
#include "util/System.h"

// Offsets (start, end) of one component within a path string.
using Range = std::pair<uint64_t, uint64_t>;

// The separator set: just "/".
extern const char* const sPathSeparators;

// Everything before the last '/'; "." without any '/'. So "/etc" gives ""
// and "a/b/" gives "a/b".
std::string getDirectoryName(const std::string& path);

// Everything after the last '/'; "" without any '/' (deliberately).
std::string getFileName(const std::string& path);

// True when the path has a root: a leading '/' on this platform.
bool isAbsolute(GenericStringKey path, System::OSID os = System::OS_LINUX);

// a + sep + b; an empty side yields the other, an absolute b wins, and a
// trailing '/' of a stands for sep.
void pathConcatEx(GenericStringKey a, GenericStringKey b, std::string& out, char sep = '/');
// Returning form of pathConcatEx with '/'.
std::string pathConcat(GenericStringKey a, GenericStringKey b);

// Pushes the root's range (if any), then one per non-empty component, or
// else (0, 0); root receives the root text. Returns whether it is absolute.
bool splitPath(const std::string& path, std::vector<Range>& parts, std::string* root = nullptr);

// When path lies below the absolute base (component-wise), cuts the base off
// (equal paths give "") and returns true; otherwise leaves path unchanged.
bool makeRelative(const std::string& base, std::string& path);

#endif  // HIVE_UTIL_PATHFUN_H_
