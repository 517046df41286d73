#include "hopper/Application.h"

#include <gtest/gtest.h>

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

  // Runs start over words (argv[0] first), which must outlive the object.
  int startWith(Words& words, bool captureStderr = true) {
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    if (captureStderr) testing::internal::CaptureStderr();
    const int status = start(static_cast<int>(argv.size()), argv.data());
    if (captureStderr) err = testing::internal::GetCapturedStderr();
    return status;
  }

  std::function<int()> body = [] { return 0; };
  std::function<void()> onTerminate = [] {};
  std::string defaultLog;
  std::string calls;  // U = usage, R = run, T = terminate, in call order
  std::string err;    // standard error during start()
};

}  // namespace

TEST(ApplicationTest, ParsesOptionsUntilTheFirstPositionalArgument) {
  TestApp app;
  EXPECT_EQ(&app, &Application::getInstance());
  app.body = [] { return 3; };
  Words words = {"/opt/bin/tool", "--hosts=a", "--nodes", "b", "--ti", " -12x", "-v",
                 "--good-hosts-only", "src", "--verbose", "-", "tgt"};
  EXPECT_EQ(3, app.startWith(words));
  EXPECT_EQ("tool", app.getProgramName());
  EXPECT_STREQ("a", app.getOption(A::ARG_NODES, "none"));  // first occurrence wins
  EXPECT_EQ(-12, app.getOptionAsInt(A::ARG_TIMEOUT, 9));
  EXPECT_TRUE(app.wasOptionPresent('v') && !app.wasOptionPresent('h'));
  EXPECT_STREQ("true", app.getOption(A::ARG_GOODONLY, nullptr));
  EXPECT_FALSE(app.wasOptionPresent(A::ARG_VERBOSE));
  EXPECT_STREQ("dflt", app.getOption(A::ARG_CM, "dflt"));
  EXPECT_EQ(9, app.getOptionAsInt(A::ARG_CM, 9));
  EXPECT_EQ(Words({"src", "--verbose", "-", "tgt"}), app.positional());
}

TEST(ApplicationTest, FailuresPrintOneLineAndGiveStatusOne) {
  const std::function<int()> ok = [] { return 0; };
  const std::function<void()> quiet = [] {};
  const char* invalid = "USAGEInvalid option provided.\n";
  const struct { Words words; std::function<int()> body; std::function<void()> onTerminate; const char* err, *calls; } cases[] = {
      {{"--h"}, ok, quiet, invalid, "UT"}, {{"--good"}, ok, quiet, invalid, "UT"},  // ambiguous
      {{"--verbose=yes"}, ok, quiet, invalid, "UT"}, {{"--timeout"}, ok, quiet, invalid, "UT"},
      {{"-x"}, ok, quiet, invalid, "UT"}, {{"-vx", "f"}, ok, quiet, invalid, "UT"},
      {{"--logfile=f"}, ok, quiet, "Logfile option requires a log level.\n", "T"},
      {{}, []() -> int { throw std::runtime_error("boom"); }, quiet, "boom\n", "RT"},
      {{}, []() -> int { throw 42; }, quiet, "Caught unknown error\n", "RT"},
      {{}, ok, [] { throw std::runtime_error("late"); }, "Terminate Failurelate\n", "RT"},
      {{}, []() -> int { throw std::runtime_error("a"); }, [] { throw 1; }, "a\nTerminate caught unknown error.\n", "RT"}};
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
  const std::pair<const char*, int> levels[] = {{"info", 1}, {"debug", 3}, {"loud", 0}};
  for (const auto& [level, mask] : levels) {
    const std::string log = dir.file(level);
    TestApp app;
    Words words = {"daemon-x", std::string("--log-level=") + level, "--logfile=" + log};
    EXPECT_EQ(0, app.startWith(words)) << app.err;
    EXPECT_TRUE(mask == logger.getGlobalMask() && log == logger.getPath()) << level;
    EXPECT_EQ(mask != 0, TempDir::read(log).find("Logging enabled for daemon-x\n") != std::string::npos)
        << level;
    logger.setGlobalMask(0);
    logger.setLogFile("");
  }
  TestApp app;  // an empty file name stands for the default one
  app.defaultLog = dir.file("default");
  Words words = {"daemon-x", "--log-level=info", "--logfile="};
  EXPECT_EQ(0, app.startWith(words)) << app.err;
  EXPECT_EQ(app.defaultLog, logger.getPath());
  logger.setGlobalMask(0);
  logger.setLogFile("");
}

TEST(ApplicationDeathTest, HelpExitsAtOnceAndASecondInstanceAborts) {
  for (const char* help : {"-hv", "--help"}) {
    auto runHelp = [help] {
      TestApp app;
      app.body = [] { std::cerr << "RAN"; return 0; };
      app.onTerminate = [] { std::cerr << "TERMINATED"; };
      Words words = {"tool", help, "--bogus"};
      app.startWith(words, false);
    };
    EXPECT_EXIT(runHelp(), testing::ExitedWithCode(0), "^USAGE$") << help;
  }
  EXPECT_DEATH({ TestApp first; TestApp second; }, "sApplication == 0");
}
