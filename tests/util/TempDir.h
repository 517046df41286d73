// A fresh directory under /tmp for one test, removed with its contents.
#ifndef HC_TESTS_UTIL_TEMPDIR_H
#define HC_TESTS_UTIL_TEMPDIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/hc_util_test.XXXXXX";
    const char* made = mkdtemp(name);
    mPath = made ? made : "";
  }
  ~TempDir() {
    std::error_code ignored;
    if (!mPath.empty()) std::filesystem::remove_all(mPath, ignored);
  }
  const std::string& path() const { return mPath; }
  std::string file(const std::string& name) const { return mPath + "/" + name; }

  static void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  }
  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

 private:
  std::string mPath;
};

#endif  // HC_TESTS_UTIL_TEMPDIR_H
