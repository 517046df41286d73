// Real hopperd processes on 127.0.0.2, 127.0.0.3, ... driven by the client's
// upload engine in this process.
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
  // The name the client knows daemon i by; reports must use it.
  static std::string name(size_t i) { return "node" + std::to_string(i); }
  // Runs the upload of pairs on another thread; wait for it with finish().
  void startUpload(const FilePairs& pairs, bool stopAgents = false) {
    IPtoNameMap hosts;
    for (size_t i = 0; i < daemons.size(); ++i) hosts[daemon(i).id] = name(i);
    client = std::make_unique<UploadManager>(hosts, false, stopAgents, -1, System::OS_LINUX, out,
                                             err);
    result = std::async(std::launch::async, [this, pairs] { return client->uploadBatch(pairs); });
  }
  // Waits for the upload (a hung one fails, its daemons are killed).
  bool finish() {
    if (result.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
      ADD_FAILURE() << "upload hung";
      for (auto& d : daemons) d->signal(SIGKILL);
    }
    return result.get();
  }
  bool upload(const std::string& from, const std::string& to, bool stopAgents = false) {
    startUpload({{from, to}}, stopAgents);
    return finish();
  }
  // Starts the upload of 3,000 files of 4 KiB in 30 folders to /data/many.
  void startManySmallFiles() {
    for (unsigned i = 0; i < 3000; ++i) {
      TempDir::write(dir.file("src/many/d" + std::to_string(i % 30) + "/f" + std::to_string(i)),
                     4096, i, fs::perms(0644));
    }
    startUpload({{dir.file("src/many"), "/data"}});
  }
  // Each host but the one skipped holds what src holds under /data, and nothing staged.
  void expectCopied(size_t skipped) {
    for (size_t i = 0; i < daemons.size(); ++i) {
      if (i == skipped) continue;
      expectSameTree(dir.file("src"), root(i) + "/data");
      EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
    }
  }
  // Four daemons take a small file, then 64 MB. Daemon victim is stopped in
  // the middle of the big one, when nothing may be visible anywhere, then
  // killed, or left stopped until the link's time-out gives it up. The
  // others must hold both files at the end.
  bool pauseInTheMiddle(size_t victim, bool kill) {
    start(4, {"--io-timeout=" + std::string(kill ? "30" : "2")});
    TempDir::write(dir.file("src/first"), 1000, 1, fs::perms(0644));
    TempDir::write(dir.file("src/big"), 64 << 20, 9, fs::perms(0640));
    startUpload({{dir.file("src/first"), "/data/first"}, {dir.file("src/big"), "/data/big"}});
    EXPECT_TRUE(waitFor([&] { return stagedBytes(root(3), "big") > 1 << 20; })) << err.str();
    daemon(victim).signal(SIGSTOP);
    EXPECT_LT(stagedBytes(root(victim), "big"), 64 << 20);
    for (size_t i = 0; i < 4; ++i) EXPECT_TRUE(filesUnder(root(i), false).empty()) << i;
    if (kill) daemon(victim).signal(SIGKILL);
    EXPECT_EQ(daemon(victim).waitExit(kill ? 10000 : 0), kill ? 128 + SIGKILL : -1);
    const bool ok = finish();
    daemon(victim).signal(SIGCONT);
    expectCopied(victim);
    EXPECT_HAS(err.str(), "Unable to connect or lost connection to " + name(victim) + ".\n");
    return ok;
  }

  std::ostringstream out, err;
  std::unique_ptr<UploadManager> client;
  std::future<bool> result;
};

// A few hundred files in nested folders with blanks in their names, some
// empty, one of 3 MB, with assorted permission bits.
TEST_F(ChainTest, TreeReachesEveryHostAroundAnUnreachableOneAndCrossesEachLinkOnce) {
  start(5);
  daemon(2).stop();
  const fs::perms modes[] = {fs::perms(0644), fs::perms(0755), fs::perms(0600), fs::perms(0640)};
  int64_t total = 3 << 20;
  for (unsigned i = 0; i < 300; ++i) {
    const size_t size = i % 10 == 0 ? 0 : (i * 37) % 5000;
    const std::string folder = "src/tree/d" + std::to_string(i % 5) + "/e " + std::to_string(i % 3);
    TempDir::write(dir.file(folder + "/f " + std::to_string(i) + ".txt"), size, i, modes[i % 4]);
    total += int64_t(size);
  }
  TempDir::write(dir.file("src/tree/big file"), 3 << 20, 7, fs::perms(0700));
  EXPECT_TRUE(upload(dir.file("src/tree"), "/data"));
  EXPECT_EQ(err.str(), TCPSocket::getHostName() + ": Unable to connect or lost connection to " +
                           name(2) + ".\n");
  expectCopied(2);
  // The head received each byte once; so did the tail (its log says).
  for (size_t i : {0, 4}) {
    const std::string log = TempDir::read(daemon(i).logFile), key = "committed: ";
    const size_t at = log.rfind(key);
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(std::stoll(log.substr(at + key.size())), total) << i;
  }
}

TEST_F(ChainTest, AgentCommandsRunAroundTheRenamesWhenAsked) {
  const std::string target = dir.file("d0/root/data/f"), log = dir.file("agents");
  start(1, {"--stop-agents-cmd=test -e " + target + " || echo stop >> " + log,
            "--start-agents-cmd=test -e " + target + " && echo start >> " + log + "; exit 3"});
  TempDir::write(dir.file("src/f"), 10, 1, fs::perms(0644));
  // The file landed, but a failed command is an error of the run.
  EXPECT_FALSE(upload(dir.file("src/f"), "/data/f", true));
  EXPECT_EQ(TempDir::read(log), "stop\nstart\n");
  EXPECT_HAS(err.str(), name(0) + ": Command \"test -e " + target + " && echo start >> " + log +
                            "; exit 3\" failed: exit status 3");
  EXPECT_TRUE(upload(dir.file("src/f"), "/data/f"));
  EXPECT_EQ(TempDir::read(log), "stop\nstart\n");
}

TEST_F(ChainTest, HeadKilledInALargeFileResumesOnTheNextHost) {
  EXPECT_TRUE(pauseInTheMiddle(0, true)) << err.str();
  // Restarted, the head finds its journal and removes what it had staged.
  EXPECT_FALSE(filesUnder(root(0), true).empty());
  ASSERT_TRUE(daemon(0).start());
  EXPECT_TRUE(filesUnder(root(0), true).empty());
  EXPECT_FALSE(fs::exists(root(0) + "/data"));
  EXPECT_TRUE(fs::is_empty(daemon(0).stateDir));
}

TEST_F(ChainTest, MiddleHostKilledInAFileIsRoutedAround) {
  pauseInTheMiddle(1, true);
  EXPECT_HAS(err.str(), "Errors while committing uploaded file(s):\n" + name(0) +
                            ": Unable to connect or lost connection to " + name(1) + ".");
}

TEST_F(ChainTest, MiddleHostStoppedInAFileIsDroppedAfterTheTimeOut) {
  EXPECT_TRUE(pauseInTheMiddle(1, false)) << err.str();
  EXPECT_FALSE(fs::exists(root(1) + "/data/big"));
}

// Small files stream through the chain without waiting for it. A middle host
// stopped while they flow (its buffers fill) and then killed loses files it
// took but never passed on: the head sends them again from its staged
// copies to the host after it, which says which file it took last.
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

// The head killed while small files stream: the host after it holds every
// file the head had taken (nothing waits for replies on the link, so the
// head's end has nothing unread and its last bytes still go out), and the
// client resumes there with the file it was sending.
TEST_F(ChainTest, HeadKilledInATreeLeavesNoFileMissingOnTheOthers) {
  start(3);
  startManySmallFiles();
  ASSERT_TRUE(waitFor([&] { return filesUnder(root(2), true).size() >= 1000; })) << err.str();
  daemon(0).signal(SIGKILL);
  EXPECT_EQ(daemon(0).waitExit(10000), 128 + SIGKILL);
  EXPECT_TRUE(finish()) << err.str();
  expectCopied(0);
}

// A host that refuses a file still passes it on; its refusal reaches the
// client with the commit reply and fails the run, and the hosts on both
// sides of it commit the file.
TEST_F(ChainTest, AFileAMiddleHostRefusesReachesTheOthersAndFailsTheRun) {
  start(3);
  TempDir::write(root(1) + "/data/sub", 3, 3, fs::perms(0644));  // a file where a folder goes
  TempDir::write(dir.file("src/sub/f"), 100000, 1, fs::perms(0644));
  TempDir::write(dir.file("src/g"), 1000, 2, fs::perms(0644));
  EXPECT_FALSE(upload(dir.file("src/"), "/data"));
  EXPECT_HAS(err.str(), name(1) + ": /data/sub/f: /data/sub: Not a directory");
  expectCopied(1);
  EXPECT_EQ(TempDir::read(root(1) + "/data/g"), TempDir::read(dir.file("src/g")));
  EXPECT_EQ(fs::file_size(root(1) + "/data/sub"), 3u);
  EXPECT_TRUE(filesUnder(root(1), true).empty());
}
