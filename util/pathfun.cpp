#include "util/pathfun.h"

#include "util/Assert.h"

const char* const sPathSeparators = "/";

namespace {

bool isSeparator(char c) { return c == '/'; }

// Length of the root at the start of path: 1 for a leading '/', else 0.
std::size_t rootLength(GenericStringKey path) {
  return !path.empty() && isSeparator(path[0]) ? 1 : 0;
}

}  // namespace

std::string getDirectoryName(const std::string& path) {
  const std::string::size_type slash = path.find_last_of(sPathSeparators);
  if (slash == std::string::npos) return ".";
  return path.substr(0, slash);
}

std::string getFileName(const std::string& path) {
  const std::string::size_type slash = path.find_last_of(sPathSeparators);
  if (slash == std::string::npos) return std::string();
  return path.substr(slash + 1);
}

bool isAbsolute(GenericStringKey path, System::OSID) { return rootLength(path) > 0; }

void pathConcatEx(GenericStringKey a, GenericStringKey b, std::string& out, char sep) {
  if (a.empty() || b.empty() || isAbsolute(b)) {
    const GenericStringKey& src = b.empty() ? a : b;
    out.assign(src.data(), src.size());
  } else {
    out.reserve(a.size() + b.size() + 1);
    out.assign(a.data(), a.size());
    if (!isSeparator(a.back())) out += sep;
    out.append(b.data(), b.size());
  }
}

std::string pathConcat(GenericStringKey a, GenericStringKey b) {
  std::string out;
  pathConcatEx(a, b, out, '/');
  return out;
}

bool splitPath(const std::string& path, std::vector<Range>& parts, std::string* root) {
  const std::size_t rootLen = rootLength(path);
  const std::size_t firstPart = parts.size();
  if (rootLen > 0) parts.emplace_back(0, rootLen);
  if (root) root->assign(path, 0, rootLen);
  std::size_t pos = rootLen;
  while (pos < path.size()) {
    while (pos < path.size() && isSeparator(path[pos])) ++pos;
    const std::size_t start = pos;
    while (pos < path.size() && !isSeparator(path[pos])) ++pos;
    if (pos > start) parts.emplace_back(start, pos);
  }
  if (parts.size() == firstPart) parts.emplace_back(0, 0);
  return rootLen > 0;
}

bool makeRelative(const std::string& base, std::string& path) {
  std::vector<Range> pathParts;
  if (!splitPath(path, pathParts)) return false;
  std::vector<Range> baseParts;
  const bool absolute = splitPath(base, baseParts);
  HC_ASSERT(absolute);
  if (baseParts.size() > pathParts.size()) return false;
  for (std::size_t i = 0; i < baseParts.size(); ++i) {
    const Range &b = baseParts[i], &p = pathParts[i];
    if (base.compare(b.first, b.second - b.first, path, p.first, p.second - p.first) != 0) {
      return false;
    }
  }
  if (pathParts.size() > baseParts.size()) {
    path.erase(0, pathParts[baseParts.size()].first);
  } else {
    path.clear();
  }
  return true;
}
