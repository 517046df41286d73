#include "support/TempDir.h"

#include <stdlib.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "hc_test.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("TempDir: mkdtemp failed");
  mPath = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(mPath, ignored);
}

void TempDir::write(const fs::path& path, const std::string& content) {
  std::error_code ignored;
  fs::create_directories(path.parent_path(), ignored);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string TempDir::pattern(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) {  // eight bytes from each mixed counter value
    uint64_t z = (i / 8 + (uint64_t(seed) << 40)) * 0x9E3779B97F4A7C15u;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    bytes[i] = char((z ^ (z >> 27)) >> (8 * (i % 8)));
  }
  return bytes;
}

void TempDir::write(const fs::path& path, size_t size, unsigned seed, fs::perms mode) {
  write(path, pattern(size, seed));
  fs::permissions(path, mode);
}

std::string TempDir::read(const fs::path& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return bytes.str();
}

void expectSameTree(const fs::path& from, const fs::path& to) {
  size_t files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(from)) {
    const fs::path other = to / fs::relative(entry.path(), from);
    if (entry.is_directory()) continue;
    ASSERT_TRUE(fs::is_regular_file(other)) << other;
    EXPECT_EQ(fs::status(other).permissions(), entry.status().permissions()) << other;
    EXPECT_TRUE(TempDir::read(entry.path()) == TempDir::read(other)) << other;
    ++files;
  }
  EXPECT_EQ(filesUnder(to, false).size(), files) << to;
}

std::vector<std::string> filesUnder(const fs::path& root, bool staged) {
  std::vector<std::string> found;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename();
    const bool isStaged = name.size() > 7 && name.compare(name.size() - 7, 7, ".staged") == 0;
    if (it->is_regular_file() && isStaged == staged) found.push_back(it->path());
  }
  return found;
}

std::string stagedPath(const fs::path& root, const std::string& name) {
  for (const std::string& path : filesUnder(root, true)) {
    if (fs::path(path).filename().string().rfind("." + name + ".", 0) == 0) return path;
  }
  return "";
}

int64_t stagedBytes(const fs::path& root, const std::string& name) {
  std::error_code ec;
  const std::string path = stagedPath(root, name);
  return path.empty() ? -1 : int64_t(fs::file_size(path, ec));
}

bool waitFor(const std::function<bool()>& done, int timeoutMs) {
  for (int waited = 0; waited < timeoutMs; waited += 10) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}
