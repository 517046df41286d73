#include "util/Logger.h"

#include <gtest/gtest.h>

#include <iostream>
#include <regex>
#include <sstream>
#include <thread>

#include "support/TempDir.h"
#include "util/System.h"

namespace {

// A logger of its own per test, with a fixed header so contents compare.
class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mLog.setShowHeaderFn([](std::ostream& os) { os << "H: "; });
    mLog.setGlobalMask(LOG_INFO);
    mLog.setMaxFileSize(100);
  }
  std::string backlog(int n) const { return mPath + "." + std::to_string(n); }
  std::string read(int n) const { return TempDir::read(n == 0 ? mPath : backlog(n)); }

  TempDir mDir;
  std::string mPath = mDir.file("tool.log");
  Logger mLog;
};

}  // namespace

TEST_F(LoggerTest, RecordsOfTheEnabledLevelsWithTimeAndThread) {
  Logger& process = Logger::getInstance();
  process.setLogFile(mPath);
  process.setGlobalMask(LOG_INFO);
  HC_LOG_INFO("count " << 2);
  HC_LOG_DEBUG("suppressed " << 3);
  LogStream stream;  // composes a record and hands it over whole
  stream.start(process, LOG_INFO);
  stream << "value " << 42;
  stream.finish();
  process.setGlobalMask(0);
  process.setLogFile("");
  const std::string h = "\\[[^\\]]+\\] 0x[0-9a-f]+: ";
  EXPECT_TRUE(std::regex_match(read(0), std::regex(h + "count 2\n" + h + "value 42\n"))) << read(0);
}

// A file below the size limit is appended to; one at the limit is rolled
// first, each backlog moving up one until the retention limit or a gap.
TEST_F(LoggerTest, RollOverKeepsTheRetentionLimitAndStopsAtAGap) {
  const std::string full(100, 'c');
  const struct {
    int retain;
    std::initializer_list<int> backlogs;
    size_t size;
    std::vector<std::string> files;  // the current file, then backlogs 1, 2, ...; "": absent
  } cases[] = {
      {20, {1, 2, 3}, 99, {std::string(99, 'c') + "H: x\n", "1-old", "2-old", "3-old", ""}},
      {20, {1, 2, 3}, 100, {"H: x\n", full, "1-old", "2-old", "3-old", ""}},
      {2, {1, 2}, 100, {"H: x\n", full, "1-old", ""}},            // the oldest backlog goes
      {20, {1, 3}, 100, {"H: x\n", full, "1-old", "3-old", ""}},  // a gap ends the shift
      {-1, {1}, 100, {full + "H: x\n", "", "1-old"}},             // unlimited: the file stays
  };
  int round = 0;
  for (const auto& c : cases) {
    mPath = mDir.file("case" + std::to_string(++round) + ".log");
    for (int n : c.backlogs) TempDir::write(backlog(n), std::to_string(n) + "-old");
    TempDir::write(mPath, std::string(c.size, 'c'));
    mLog.setFilesToRetain(c.retain);
    mLog.setLogFile(mPath);
    mLog.log(LOG_INFO, "x");
    for (int n = 0; n < int(c.files.size()); ++n) {
      if (c.files[n].empty()) EXPECT_FALSE(System::fileExists(backlog(n))) << backlog(n);
      else EXPECT_EQ(c.files[n], read(n)) << n << " in case " << round;
    }
  }
}

TEST_F(LoggerTest, UnopenableFileFallsBackToStandardLog) {
  std::ostringstream captured;
  std::streambuf* saved = std::clog.rdbuf(captured.rdbuf());
  mLog.setLogFile(mDir.file("no/such/dir/log"));
  mLog.log(LOG_INFO, "still logged");
  std::clog.rdbuf(saved);
  EXPECT_EQ("Unable to open log file: " + mDir.file("no/such/dir/log") + "\nH: still logged\n",
            captured.str());
}

TEST_F(LoggerTest, ConcurrentRecordsStayWholeAcrossRollOvers) {
  mLog.setFilesToRetain(50);
  mLog.setMaxFileSize(400);
  mLog.setLogFile(mPath);
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([this, t] {
      for (int i = 0; i < 100; ++i) mLog.log(LOG_INFO, "writer " + std::to_string(t) + " record " + std::to_string(i));
    });
  }
  for (auto& w : writers) w.join();
  int records = 0;
  for (int n = 0; n <= 50; ++n) {
    std::istringstream in(read(n));
    for (std::string l; std::getline(in, l); ++records) {
      ASSERT_TRUE(std::regex_match(l, std::regex("H: writer [0-3] record [0-9]+"))) << n << ": " << l;
    }
  }
  EXPECT_EQ(400, records);
}
