// Real hopperd processes driven by the client's upload engine in this process.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <future>
#include <sstream>

#include "hopper/UploadManager.h"
#include "support/DaemonProcess.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

class ChainTest : public DaemonChainTest {
 protected:
  ~ChainTest() override { daemons.clear(); }  // the upload in flight ends before its client
  static std::string name(size_t i) { return "node" + std::to_string(i); }
  // Runs the upload of pairs on another thread until finish().
  void startUpload(const FilePairs& pairs) {
    IPtoNameMap hosts;
    for (size_t i = 0; i < daemons.size(); ++i) hosts[daemon(i).id] = name(i);
    client = std::make_unique<UploadManager>(hosts, false, false, -1, System::OS_LINUX, out, err);
    result = std::async(std::launch::async, [this, pairs] { return client->uploadBatch(pairs); });
  }
  bool finish() {
    if (result.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
      ADD_FAILURE() << "upload hung";
      for (auto& d : daemons) d->signal(SIGKILL);
    }
    return result.get();
  }
  void startManySmallFiles() {
    for (unsigned i = 0; i < 3000; ++i) {
      TempDir::write(dir.file("src/many/d" + std::to_string(i % 30) + "/f" + std::to_string(i)),
                     4096, i, fs::perms(0644));
    }
    startUpload({{dir.file("src/many"), "/data"}});
  }
  void expectCopied(size_t skipped) {
    for (size_t i = 0; i < daemons.size(); ++i) {
      if (i == skipped) continue;
      expectSameTree(dir.file("src"), root(i) + "/data");
      EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
    }
  }
  // The second of four daemons is stopped in a big file, then killed or left stopped.
  bool pauseTheMiddleHost(bool kill) {
    start(4, {"--io-timeout=" + std::string(kill ? "30" : "2")});
    TempDir::write(dir.file("src/first"), 1000, 1, fs::perms(0644));
    TempDir::write(dir.file("src/big"), 64 << 20, 9, fs::perms(0640));
    startUpload({{dir.file("src/first"), "/data/first"}, {dir.file("src/big"), "/data/big"}});
    EXPECT_TRUE(waitFor([&] { return stagedBytes(root(3), "big") > 1 << 20; })) << err.str();
    daemon(1).signal(SIGSTOP);
    EXPECT_LT(stagedBytes(root(1), "big"), 64 << 20);
    for (size_t i = 0; i < 4; ++i) EXPECT_TRUE(filesUnder(root(i), false).empty()) << i;
    if (kill) daemon(1).signal(SIGKILL);
    EXPECT_EQ(daemon(1).waitExit(kill ? 10000 : 0), kill ? 128 + SIGKILL : -1);
    const bool ok = finish();
    daemon(1).signal(SIGCONT);
    expectCopied(1);
    EXPECT_HAS(err.str(), "Errors while committing uploaded file(s):\n" + name(0) +
                              ": Unable to connect or lost connection to " + name(1) + ".\n");
    return ok;
  }

  std::ostringstream out, err;
  std::unique_ptr<UploadManager> client;
  std::future<bool> result;
};

TEST_F(ChainTest, MiddleHostKilledInAFileIsRoutedAroundAndCleansUpWhenRestarted) {
  EXPECT_TRUE(pauseTheMiddleHost(true)) << err.str();
  // Restarted, it finds its journal and removes what it had staged.
  EXPECT_FALSE(filesUnder(root(1), true).empty());
  ASSERT_TRUE(daemon(1).start());
  EXPECT_TRUE(filesUnder(root(1), true).empty());
  EXPECT_FALSE(fs::exists(root(1) + "/data"));
  EXPECT_TRUE(fs::is_empty(daemon(1).stateDir));
}

TEST_F(ChainTest, MiddleHostStoppedInAFileIsDroppedAfterTheTimeOut) {
  EXPECT_TRUE(pauseTheMiddleHost(false)) << err.str();
  EXPECT_FALSE(fs::exists(root(1) + "/data/big"));
}

// The head sends again from its staged copies what a killed middle host never passed on.
TEST_F(ChainTest, FilesInFlightPastAKilledMiddleHostAreSentAgain) {
  start(4);
  startManySmallFiles();
  ASSERT_TRUE(waitFor([&] { return filesUnder(root(3), true).size() >= 300; })) << err.str();
  daemon(1).signal(SIGSTOP);
  // The head goes on until the stopped host's buffers are full.
  waitFor([&] { return filesUnder(root(0), true).size() >= filesUnder(root(3), true).size() + 100; },
          10000);
  daemon(1).signal(SIGKILL);
  EXPECT_EQ(daemon(1).waitExit(10000), 128 + SIGKILL);
  EXPECT_TRUE(finish()) << err.str();
  EXPECT_HAS(err.str(), "Unable to connect or lost connection to " + name(1) + ".");
  expectCopied(1);
}

// Files the dead head confirmed to the client but never passed on reach the others.
TEST_F(ChainTest, HeadKilledInATreeLeavesNoFileMissingOnTheOthers) {
  start(3);
  startManySmallFiles();
  ASSERT_TRUE(waitFor([&] { return filesUnder(root(2), true).size() >= 1000; })) << err.str();
  daemon(0).signal(SIGKILL);
  EXPECT_EQ(daemon(0).waitExit(10000), 128 + SIGKILL);
  EXPECT_TRUE(finish()) << err.str();
  expectCopied(0);
}

// A host that refuses a file still passes it on; each byte reaches the others once.
TEST_F(ChainTest, AFileAMiddleHostRefusesReachesTheOthersAndFailsTheRun) {
  start(3);
  TempDir::write(root(1) + "/data/sub", 3, 3, fs::perms(0644));  // a file where a folder goes
  TempDir::write(dir.file("src/sub/f"), 100000, 1, fs::perms(0644));
  TempDir::write(dir.file("src/g"), 1000, 2, fs::perms(0755));
  startUpload({{dir.file("src/"), "/data"}});
  EXPECT_FALSE(finish());
  EXPECT_HAS(err.str(), name(1) + ": /data/sub/f: /data/sub: Not a directory");
  expectCopied(1);
  EXPECT_EQ(TempDir::read(root(1) + "/data/g"), TempDir::read(dir.file("src/g")));
  EXPECT_EQ(fs::file_size(root(1) + "/data/sub"), 3u);
  EXPECT_TRUE(filesUnder(root(1), true).empty());
  for (size_t i : {0, 2}) EXPECT_HAS(TempDir::read(daemon(i).logFile), "committed: 101000 data");
}
