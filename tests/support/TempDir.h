// TempDir: a fresh folder under /tmp for one test, removed with its
// contents; and file helpers for the tests that write files, upload trees to
// real daemons and look for what the daemons staged (hidden
// ".<name>.<hash>.<session>.staged" files beside their targets).
#ifndef HIVE_TESTS_SUPPORT_TEMPDIR_H_
#define HIVE_TESTS_SUPPORT_TEMPDIR_H_

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

class TempDir {
 public:
  // Throws std::runtime_error when no folder can be made.
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return mPath; }
  std::string file(const std::string& name) const { return mPath + "/" + name; }

  // size pseudo-random bytes, varied by seed, with no short period.
  static std::string pattern(size_t size, unsigned seed = 0);
  // Replaces the file's content, creating its parent folders.
  static void write(const std::filesystem::path& path, const std::string& content);
  // pattern(size, seed) with the permission bits mode.
  static void write(const std::filesystem::path& path, size_t size, unsigned seed,
                    std::filesystem::perms mode);
  // The whole content of a file ("" when it cannot be read).
  static std::string read(const std::filesystem::path& path);

 private:
  std::string mPath;
};

// Expects every regular file under from to exist under to with the same
// bytes and permission bits, and no other file under to (gtest checks).
void expectSameTree(const std::filesystem::path& from, const std::filesystem::path& to);
// Regular files under root: the staged ones, or all the others.
std::vector<std::string> filesUnder(const std::filesystem::path& root, bool staged);
// The staged file of a target called name anywhere under root ("" when
// none), and the bytes staged so far in it (-1 when none).
std::string stagedPath(const std::filesystem::path& root, const std::string& name);
int64_t stagedBytes(const std::filesystem::path& root, const std::string& name);
// Polls done every 10 ms for up to timeoutMs; its last value.
bool waitFor(const std::function<bool()>& done, int timeoutMs = 30000);
// A gtest check that text holds part (both printed when it does not).
#define EXPECT_HAS(text, part) EXPECT_PRED_FORMAT2(testing::IsSubstring, part, text)

#endif  // HIVE_TESTS_SUPPORT_TEMPDIR_H_
