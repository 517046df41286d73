// Runs the real hivecopy program against scripted fake daemons and a fake
// cluster manager on loopback addresses, and checks what it prints and its
// exit status.
#include <signal.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <regex>

#include <gtest/gtest.h>

#include "support/FakeCM.h"
#include "support/FakeDaemon.h"
#include "support/RunProcess.h"
#include "support/TempDir.h"
#include "support/TestNames.h"

namespace {

const int kRunLimitMs = 60000;
const int kBeginUpload = 0x55333038;
const int kCommit = 0x5533303b;
const int kAbort = 0x5533303c;

// Runs hivecopy; BRISK_CM is removed from its environment unless given.
RunProcess::Result hivecopy(const std::vector<std::string>& args, const std::string& input = "",
                            RunProcess::Environment env = {}) {
  env.emplace("BRISK_CM", std::nullopt);
  return RunProcess(HIVE_BINARY_DIR "/hivecopy", args, env, input).wait(kRunLimitMs);
}

const std::string& helpText() {
  static const std::string text =
      TempDir::read(HIVE_SOURCE_DIR "/tests/e2e/data/hivecopy_help.txt");
  return text;
}

bool hasUploadTime(const std::string& out) {
  return std::regex_search(out, std::regex("Upload time: [0-9.e+-]+ secs\n"));
}

bool sawCode(const FakeDaemon& daemon, int code) {
  const std::vector<int> codes = daemon.allCodes();
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

// Help and version win over missing hosts and a bad time limit.
TEST(HiveCopyTest, HelpAndVersion) {
  for (const std::string option : {"--help", "-h", "--version", "-v"}) {
    const RunProcess::Result r = hivecopy({option, "--timeout=0", "src"});
    EXPECT_EQ(r.status, 0) << option;
    EXPECT_EQ(r.err, "") << option;
    if (option.find('h') != std::string::npos) {
      EXPECT_EQ(r.out, helpText()) << option;
    } else {
      EXPECT_TRUE(std::regex_search(r.out, std::regex("^Hopper hivecopy [0-9.]+, build \\S+, protocol 5\n")))
          << r.out;
    }
  }
}

TEST(HiveCopyTest, ArgumentErrorsPrintTheirMessageAndStatus) {
  const std::string local = "--hosts=127.0.0.1";
  const struct { std::vector<std::string> args; std::string err; bool usage; } cases[] = {
      {{local, "f"}, "Missing arguments\n", true},
      {{local, "--filelist=list", "src", "tgt"},
       "--filelist option cannot be combined with 'src' and 'tgt' arguments.\n", true},
      {{"-x", "src", "tgt"}, "Invalid option provided.\n", true},
      {{local, "--platform=mac", "a", "/b"}, "Invalid platform: mac\n", false},
      {{local, "--timeout=0", "a", "/b"}, "Timeout value must be > 0: \"0\" invalid.\n", false},
      {{local, "--timeout=x", "a", "/b"}, "Timeout value must be > 0: \"x\" invalid.\n", false},
      {{"a", "/b"}, "A CM or list of hosts is required!\n\n", true},
      {{local, "--filelist=/nonexistent/list"},
       "Error opening file: /nonexistent/list\nAborting upload\n", false},
  };
  for (const auto& c : cases) {
    const RunProcess::Result r = hivecopy(c.args);
    EXPECT_EQ(r.err, c.err) << c.args[1];
    EXPECT_EQ(r.status, 1) << c.args[1];
    EXPECT_EQ(r.out, c.usage ? helpText() : "") << c.args[1];
  }
  const RunProcess::Result r = hivecopy({"--hosts=host[1-", "a", "/b"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err.rfind("Error parsing --hosts argument: ", 0), 0u) << r.err;
  EXPECT_EQ(r.out, "");
}

TEST(HiveCopyTest, FileListFaultsAreAllReportedThenTheUploadIsAborted) {
  TempDir dir;
  const std::string list = dir.file("list");
  TempDir::write(list, "# comment\n\n  a =>  \n=> /b\nno delimiter\nc -> /d\n" +
                           std::string(199, 'x') + "\n=> /never/read\n");
  RunProcess::Result r = hivecopy({"--hosts=127.0.0.1", "--filelist=" + list});
  EXPECT_EQ(r.err, list + ": Target file is blank on line 3\n" + list +
                       ": Source file is blank on line 4\n" + list +
                       ": Missing delimiter on line 5\n" + list +
                       ": Line too long on line 7\n\nAborting upload\n");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");

  // Any name starting with a dash reads standard input; 198 characters fit.
  const std::string longest = std::string(96, 's') + "=>/" + std::string(99, 't');
  for (const char* name : {"-", "-x"}) {
    r = hivecopy({"--hosts=127.0.0.1", std::string("--filelist=") + name}, longest + "\nsrc =>\n");
    EXPECT_EQ(r.err, std::string(name) + ": Target file is blank on line 2\n\nAborting upload\n");
    EXPECT_EQ(r.status, 1);
  }
}

// One fake daemon and a few local files to upload.
class HiveCopyUploadTest : public ::testing::Test {
 protected:
  HiveCopyUploadTest() : mDaemon("127.0.0.2") {
    TempDir::write(mDir.file("a"), "alpha");
    std::filesystem::create_directory(mDir.file("d"));
    TempDir::write(mDir.file("d/f"), "inner");
  }
  std::string hosts() const { return "--hosts=" + mDaemon.hostId(); }
  std::string path(const std::string& name) const { return mDir.file(name); }

  TempDir mDir;
  FakeDaemon mDaemon;
};

TEST_F(HiveCopyUploadTest, UploadsPairsFromStandardInputAndFromSeveralSources) {
  RunProcess::Result r = hivecopy({hosts(), "--filelist=-"},
                                  "# pairs\n" + path("a") + " => /opt/t/a1\n" + path("d/f") +
                                      " -> /opt/t/f1\n");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(hasUploadTime(r.out)) << r.out;
  EXPECT_EQ(r.err, "");
  std::string received = mDaemon.connection(0).received;
  EXPECT_HAS(received, WireBytes().str("/opt/t/a1"));
  EXPECT_HAS(received, WireBytes().str("/opt/t/f1"));
  EXPECT_EQ(mDaemon.connection(0).data, "alphainner");
  EXPECT_TRUE(sawCode(mDaemon, kCommit));

  // Several sources: each lands in the target under its last component,
  // a directory given with a trailing slash included.
  r = hivecopy({hosts(), path("a"), path("d") + "/", "/opt/t"});
  EXPECT_EQ(r.status, 0) << r.err;
  received = mDaemon.connection(1).received;
  EXPECT_HAS(received, WireBytes().str("/opt/t/a"));
  EXPECT_HAS(received, WireBytes().str("/opt/t/d/f"));

  // A host that does not resolve is reported and skipped; a file the
  // daemon fails makes the run fail, with the time still printed.
  FakeDaemon::Script failing;
  failing.fileReply = "disk full";
  mDaemon.setScript(failing);
  r = hivecopy({"--hosts=" HC_UNRESOLVABLE_HOST " " + mDaemon.hostId(), path("a"), "/opt/a"});
  EXPECT_EQ(r.status, 1);
  // The resolver message keeps the first 60 characters of the name.
  EXPECT_HAS(r.err, "couldn't find host \"" + std::string(HC_UNRESOLVABLE_HOST, 60) + "\": ");
  EXPECT_HAS(r.err, "disk full\n");
  EXPECT_TRUE(hasUploadTime(r.out)) << r.out;
}

// SIGINT once a file's data is in, or the time limit (the handshake and
// begin alone outlast one second), aborts the upload: nothing is committed.
TEST_F(HiveCopyUploadTest, InterruptOrTimeLimitAbortsTheUpload) {
  FakeDaemon::Script slow;
  slow.replyDelayMs = 700;
  mDaemon.setScript(slow);
  std::atomic<RunProcess*> running{nullptr};
  mDaemon.setOnMessage([&running](int code) {
    RunProcess* process = running.load();
    if (code == FakeDaemon::kDataReceived && process != nullptr) process->signal(SIGINT);
  });
  RunProcess process(HIVE_BINARY_DIR "/hivecopy", {hosts(), path("a"), "/opt/a"},
                     {{"BRISK_CM", std::nullopt}});
  running = &process;
  RunProcess::Result r = process.wait(kRunLimitMs);
  running = nullptr;
  EXPECT_EQ(r.status, 1);
  EXPECT_HAS(r.err, std::string("User signal received: ") + strsignal(SIGINT) + ".\n");
  EXPECT_HAS(r.err, "\nAborting upload...\n");
  EXPECT_TRUE(sawCode(mDaemon, kAbort));
  EXPECT_FALSE(sawCode(mDaemon, kCommit));

  r = hivecopy({hosts(), "--timeout=1", path("a"), "/opt/a"});
  EXPECT_EQ(r.status, 1);
  EXPECT_HAS(r.err, "Aborting upload due to timeout...\n");
  EXPECT_FALSE(sawCode(mDaemon, kCommit));
}

TEST_F(HiveCopyUploadTest, HostsComeFromTheClusterManager) {
  FakeDaemon second("127.0.0.3");
  FakeCM cm;
  FakeCM::Options options;
  options.agents = {{mDaemon.hostId(), "127.0.0.2"}, {second.hostId(), "127.0.0.3"}};
  cm.start("127.0.0.4", options);

  // From BRISK_CM: the head is told the whole host set.
  RunProcess::Result r = hivecopy({path("a"), "/opt/a"}, "", {{"BRISK_CM", cm.hostPort()}});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_HAS(mDaemon.connection(0).received, WireBytes().i32(kBeginUpload).i32(2)
                .str(mDaemon.hostId()).str(second.hostId()).flag(true));
  ASSERT_EQ(cm.requests().size(), 2u);
  EXPECT_HAS(cm.requests()[1].path, "agentOSID=3");

  // --cm wins over BRISK_CM; platform and good-hosts filter reach the query.
  const std::string dead = "127.0.0.4:" + std::to_string(FakeDaemon::unusedPort("127.0.0.4"));
  r = hivecopy({"--cm=" + cm.hostPort(), "--platform=WINDOWS", "--good-hosts-only", "--stop-agents",
                path("a"), "/opt/a"}, "", {{"BRISK_CM", dead}});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_HAS(cm.requests().back().path, "agentOSID=1%20and%20agentEnabled=1%20and%20agentStatus=1");
  EXPECT_HAS(mDaemon.connection(1).received, WireBytes().str(second.hostId()).flag(false));

  // --hosts wins over the cluster manager, which is then not asked.
  const size_t asked = cm.requests().size();
  r = hivecopy({"--cm=" + cm.hostPort(), hosts(), path("a"), "/opt/a"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(cm.requests().size(), asked);

  options.agents.clear();
  cm.reconfigure(options);
  r = hivecopy({"--cm=" + cm.hostPort(), path("a"), "/opt/a"});
  EXPECT_EQ(r.err, "No hosts found; you may have to use the --platform option.\n\n");
  EXPECT_EQ(r.out, helpText());
  EXPECT_EQ(r.status, 1);
}

}  // namespace
