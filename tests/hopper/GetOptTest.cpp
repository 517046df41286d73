#include "hopper/GetOpt.h"

#include <getopt.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "util/System.h"

namespace {

using Words = std::vector<std::string>;

// Names that prefix others, optional and required values, a row with a flag.
int gFlag = 0;
const option kLong[] = {{"alpha", 0, nullptr, 'a'}, {"beta", 1, nullptr, 501}, {"bet", 0, nullptr, 502},
                        {"gamma", 2, nullptr, 503}, {"gammaray", 0, nullptr, 504},
                        {"delta", 1, nullptr, 'd'}, {"flag", 0, &gFlag, 7}, {}};
const char kShort[] = "ab:c::d:";

// Each result with its value, the flag, optind and the final argument order.
Words scan(Words words, bool stop, bool libc) {
  std::vector<GetOpt::Option> table;
  for (const option& o : kLong) table.push_back({o.name, o.has_arg, o.flag, o.val, nullptr});
  words.insert(words.begin(), "prog");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  std::vector<const char*> args(argv.begin() + 1, argv.end());
  GetOpt scanner(args, kShort, table.data());
  const std::string shortOpts = std::string(stop ? "+" : "") + kShort;
  optind = 0;  // full reset of the library scanner
  opterr = 0;
  gFlag = 0;
  Words trace;
  for (int i = 0, c; i < 64; ++i) {
    c = libc ? getopt_long(static_cast<int>(argv.size()), argv.data(), shortOpts.c_str(), kLong, nullptr)
             : scanner.next(stop);
    if (c == -1) break;
    const char* value = libc ? ::optarg : scanner.optarg;
    trace.push_back(std::to_string(c) + "=" + (value != nullptr ? value : "<null>"));
  }
  trace.push_back("flag " + std::to_string(gFlag) + " optind " + std::to_string(libc ? optind - 1 : scanner.optind));
  if (libc) args.assign(argv.begin() + 1, argv.end());
  trace.insert(trace.end(), args.begin(), args.end());
  return trace;
}

}  // namespace

TEST(GetOptTest, AgreesWithLibcScannerOnRandomArgumentVectors) {
  if (System::getenv("POSIXLY_CORRECT") != nullptr) GTEST_SKIP() << "library scanner would not permute";
  const Words pool = {"-a", "-b", "-bX", "-c", "-cY", "-ab", "-abZ", "-ac", "-ca", "-q", "-d", "-:",
                      "--alpha", "--al", "--alpha=1", "--beta", "--beta=v", "--bet", "--be", "--b",
                      "--gam", "--gamma", "--gamma=", "--gamma=g", "--gammar", "--delta", "--fl",
                      "--flag=2", "--nope", "--=x", "--", "-", "--", "-"};
  std::mt19937 random(20240611);
  for (int vector = 0; vector < 400; ++vector) {
    Words words;
    // About a third are plain words, numbered so that any reordering shows.
    for (int i = 0, n = static_cast<int>(random() % 9); i < n; ++i) {
      words.push_back(random() % 3 == 0 ? "p" + std::to_string(i) : pool[random() % pool.size()]);
    }
    for (bool stop : {false, true}) {
      std::string joined = stop ? "stop mode:" : "permuting:";
      for (const std::string& w : words) joined += " " + w;
      ASSERT_EQ(scan(words, stop, true), scan(words, stop, false)) << joined;
    }
  }
}
