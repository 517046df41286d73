#include "hopper/Application.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <iostream>
#include <stdexcept>

#include "support/TempDir.h"
#include "util/Logger.h"

namespace {

using Words = std::vector<std::string>;
using A = Application;

GetOpt::Option gTable[] = {
    {"hosts", GetOpt::REQ_ARG, nullptr, A::ARG_NODES, nullptr}, {"nodes", GetOpt::REQ_ARG, nullptr, A::ARG_NODES, nullptr},
    {"good-nodes-only", 0, nullptr, A::ARG_GOODONLY, nullptr}, {"good-hosts-only", 0, nullptr, A::ARG_GOODONLY, nullptr},
    {"timeout", GetOpt::REQ_ARG, nullptr, A::ARG_TIMEOUT, nullptr}, {"verbose", 0, nullptr, A::ARG_VERBOSE, nullptr},
    {"log-level", GetOpt::REQ_ARG, nullptr, A::ARG_LOGLEVEL, nullptr}, {"logfile", GetOpt::REQ_ARG, nullptr, A::ARG_LOGFILE, nullptr},
    {"help", 0, nullptr, 'h', nullptr}, {"version", 0, nullptr, 'v', nullptr}, {}};

class TestApp : public Application {
 public:
  TestApp() : Application(gTable, "Test tool") {}
  int run() override { calls += "R"; return body(); }
  void usage() override { calls += "U"; std::cerr << "USAGE"; }
  void terminate() override { calls += "T"; onTerminate(); }
  std::string defaultLogFile() const override { return defaultLog; }
  Words positional() const { return Words(mArgs.begin(), mArgs.end()); }

  // Runs start over words (argv[0] first); err gets its standard error.
  int startWith(Words words) {
    std::vector<char*> argv;
    for (std::string& w : kept.emplace_back(std::move(words))) argv.push_back(&w[0]);
    testing::internal::CaptureStderr();
    const int status = start(static_cast<int>(argv.size()), argv.data());
    err = testing::internal::GetCapturedStderr();
    return status;
  }

  std::function<int()> body = [] { return 0; };
  std::function<void()> onTerminate = [] {};
  std::string defaultLog, calls, err;  // calls: U usage, R run, T terminate
  std::deque<Words> kept;  // the options point into the words they came from
};

}  // namespace

TEST(ApplicationTest, ParsesOptionsUntilTheFirstPositionalArgument) {
  TestApp app;
  app.body = [] { return 3; };
  EXPECT_EQ(3, app.startWith({"/opt/bin/tool", "--hosts=a", "--nodes", "b", "--ti", " -12x", "-v",
                              "--good-hosts-only", "src", "--verbose", "-", "tgt"}));
  EXPECT_EQ("tool", app.getProgramName());
  EXPECT_STREQ("a", app.getOption(A::ARG_NODES, "none"));  // first occurrence wins
  EXPECT_EQ(-12, app.getOptionAsInt(A::ARG_TIMEOUT, 9));
  EXPECT_TRUE(app.wasOptionPresent('v') && !app.wasOptionPresent('h'));
  EXPECT_STREQ("true", app.getOption(A::ARG_GOODONLY, nullptr));
  EXPECT_FALSE(app.wasOptionPresent(A::ARG_VERBOSE));  // after the first positional
  EXPECT_EQ(9, app.getOptionAsInt(A::ARG_CM, 9));
  EXPECT_EQ(Words({"src", "--verbose", "-", "tgt"}), app.positional());
}

TEST(ApplicationTest, FailuresPrintOneLineAndGiveStatusOne) {
  const std::function<int()> ok = [] { return 0; }, boom = []() -> int { throw std::runtime_error("boom"); };
  const std::function<void()> quiet = [] {};
  const char* invalid = "USAGEInvalid option provided.\n";
  const struct { Words words; std::function<int()> body; std::function<void()> onTerminate; const char* err, *calls; } cases[] = {
      {{"--good"}, ok, quiet, invalid, "UT"},  // a prefix of two synonyms is ambiguous
      {{"--logfile=f"}, ok, quiet, "Logfile option requires a log level.\n", "T"},
      {{}, boom, quiet, "boom\n", "RT"},
      {{}, []() -> int { throw 42; }, quiet, "Caught unknown error\n", "RT"},
      {{}, ok, [] { throw std::runtime_error("late"); }, "Terminate Failurelate\n", "RT"},
      {{}, boom, [] { throw 1; }, "boom\nTerminate caught unknown error.\n", "RT"}};
  for (const auto& c : cases) {
    TestApp app;
    app.body = c.body;
    app.onTerminate = c.onTerminate;
    Words words = {"tool", "--hosts=a"};
    words.insert(words.end(), c.words.begin(), c.words.end());
    EXPECT_EQ(1, app.startWith(words)) << c.err;
    EXPECT_EQ(c.err, app.err);
    EXPECT_EQ(c.calls, app.calls) << c.err;  // terminate runs after any failure
  }
}

TEST(ApplicationTest, LoggingOptionsSetLevelAndFile) {
  TempDir dir;
  Logger& logger = Logger::getInstance();
  const struct { const char* level; std::string file; int mask; } cases[] = {
      {"debug", dir.file("d"), 3}, {"info", "", 1}};
  for (const auto& c : cases) {
    TestApp app;
    app.defaultLog = dir.file("default");  // taken for an empty file name
    EXPECT_EQ(0, app.startWith({"daemon-x", std::string("--log-level=") + c.level, "--logfile=" + c.file}))
        << app.err;
    EXPECT_EQ(c.mask, logger.getGlobalMask()) << c.level;
    EXPECT_HAS(TempDir::read(c.file.empty() ? app.defaultLog : c.file), "Logging enabled for daemon-x\n");
    logger.setGlobalMask(0);
    logger.setLogFile("");
  }
}
