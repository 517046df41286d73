// File helpers for tests that upload trees to real daemons: writing and
// reading files, comparing trees, and finding the staged files (hidden
// ".<name>.<session>.staged" files beside their targets) a daemon holds.
#ifndef HIVE_TESTS_SUPPORT_TREEFILES_H
#define HIVE_TESTS_SUPPORT_TREEFILES_H

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace TreeFiles {

// Writes size pseudo-random bytes (varied by seed) with the permission
// bits mode, creating the parent folders.
void write(const std::filesystem::path& path, size_t size, unsigned seed,
           std::filesystem::perms mode);
// The whole content of a file ("" when it cannot be read).
std::string read(const std::filesystem::path& path);
// Expects every regular file under from to exist under to with the same
// bytes and permission bits, and no other file under to (gtest checks).
void expectSameTree(const std::filesystem::path& from, const std::filesystem::path& to);
// Regular files under root: the staged ones, or all the others.
std::vector<std::string> filesUnder(const std::filesystem::path& root, bool staged);
// Bytes staged so far for a file called name anywhere under root; -1 when
// there is no such staged file.
int64_t stagedBytes(const std::filesystem::path& root, const std::string& name);
// Polls done every 10 ms for up to timeoutMs; its last value.
bool waitFor(const std::function<bool()>& done, int timeoutMs = 30000);

}  // namespace TreeFiles

#endif  // HIVE_TESTS_SUPPORT_TREEFILES_H
