// Runs every file of the given corpus folders (or single files) through the
// fuzz target linked into this program, for builds without libFuzzer.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/FuzzCheck.h"

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    if (!fs::exists(argv[i])) return std::fprintf(stderr, "no such corpus: %s\n", argv[i]), 2;
    if (fs::is_regular_file(argv[i])) files.push_back(argv[i]);
    std::error_code notFolder;
    for (fs::directory_iterator it(argv[i], notFolder), end; !notFolder && it != end; ++it) {
      if (it->is_regular_file()) files.push_back(it->path());
    }
  }
  if (files.empty()) return std::fprintf(stderr, "empty corpus\n"), 2;
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s\n", file.c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs passed\n", files.size());
  return 0;
}
