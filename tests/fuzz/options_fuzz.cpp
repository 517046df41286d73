// GetOpt over the upload command's option table, the arguments being the
// input split at NUL bytes: the scan ends, returns no more options than there
// are characters, gives each required value, and leaves a permutation of the
// arguments with optind inside them. Then the file-list reader over the
// input: every pair is non-blank and trimmed, and no more pairs than lines.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "hopper/hivecopy.h"
#include "tests/fuzz/FuzzCheck.h"

namespace {

void scanOptions(const std::vector<std::string>& texts, const char* shortOpts, bool stop) {
  std::vector<const char*> args;
  size_t characters = 0;
  for (const std::string& t : texts) {
    args.push_back(t.c_str());
    characters += t.size();
  }
  const std::vector<const char*> original = args;
  GetOpt scanner(args, shortOpts, gOptions);
  size_t returned = 0;
  for (int c = scanner.next(stop); c != -1; c = scanner.next(stop)) {
    FUZZ_CHECK(++returned <= characters);
    if (c == '?' || c == ':') continue;
    const GetOpt::Option* row = gOptions;
    while (row->name != nullptr && row->val != c) ++row;
    if (scanner.optlong) FUZZ_CHECK(row->name != nullptr);
    if (row->name != nullptr && row->has_arg == GetOpt::REQ_ARG) FUZZ_CHECK(scanner.optarg != nullptr);
  }
  FUZZ_CHECK(scanner.optind >= 0 && scanner.optind <= static_cast<int>(args.size()));
  FUZZ_CHECK(std::is_permutation(args.begin(), args.end(), original.begin(), original.end()));
}

void readList(const std::string& text) {
  static HiveCopy* const app = new HiveCopy(gOptions, "hivecopy");
  static const std::string path = [] {
    char name[] = "/tmp/hive_fuzz_list_XXXXXX";
    const int fd = ::mkstemp(name);
    FUZZ_CHECK(fd >= 0);
    ::close(fd);
    return std::string(name);
  }();
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  FilePairs pairs;
  std::string errors;
  app->processFileListFile(path.c_str(), pairs, errors);
  FUZZ_CHECK(pairs.size() <= size_t(std::count(text.begin(), text.end(), '\n') + 1));
  const auto trimmed = [](const std::string& s) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    return !s.empty() && !blank(s.front()) && !blank(s.back());
  };
  for (const auto& pair : pairs) FUZZ_CHECK(trimmed(pair.first) && trimmed(pair.second));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> texts;
  for (size_t begin = 0; begin <= text.size() && texts.size() < 64;) {
    const size_t end = std::min(text.find('\0', begin), text.size());
    texts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  // The short options the command itself derives (Application), then a
  // string with values, optional values and a leading ':'.
  scanOptions(texts, "hv", true);
  scanOptions(texts, "hv", false);
  scanOptions(texts, ":ho:p::v", false);
  readList(text);
  return 0;
}
