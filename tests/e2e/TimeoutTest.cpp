// Real hivecopy and hopperd processes on loopback addresses, with peers that
// stop, idle, dribble, speak another protocol or fill the disk: no wait of a
// daemon outlasts its time-out, and nothing half-copied becomes visible.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "hopper/hopperMisc.h"
#include "support/DaemonProcess.h"
#include "support/FakeDaemon.h"
#include "support/RawClient.h"
#include "support/RunProcess.h"
#include "support/TempDir.h"
#include "util/TCPSocket.h"

namespace fs = std::filesystem;

namespace {

const int kRunLimitMs = 120000;

RunProcess::Result runCopy(const std::vector<std::string>& args) {
  return RunProcess(HIVE_BINARY_DIR "/hivecopy", args).wait(kRunLimitMs);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

class TimeoutTest : public ::testing::Test {
 protected:
  TempDir dir;
};

TEST_F(TimeoutTest, StoppedMiddleHostIsRoutedAroundAndTheOthersComplete) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 4, {"--io-timeout=2"});
  ASSERT_TRUE(chain.started());
  TempDir::write(dir.file("src/big"), 32 << 20, 1, fs::perms(0644));
  RunProcess copy(HIVE_BINARY_DIR "/hivecopy", {chain.hostsArg(), dir.file("src/big"), "/data/"});
  ASSERT_TRUE(waitFor([&] { return stagedBytes(chain[3].root(), "big") > 1 << 20; }));
  chain[1].signal(SIGSTOP);
  const RunProcess::Result r = copy.wait(kRunLimitMs);
  chain[1].signal(SIGCONT);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(r.err, "Unable to connect or lost connection to " + chain[1].id() + "."))
      << r.err;
  for (size_t i : {0, 2, 3}) {
    EXPECT_TRUE(TempDir::read(fs::path(chain[i].root()) / "data/big") == TempDir::read(dir.file("src/big")))
        << i;
    EXPECT_TRUE(filesUnder(chain[i].root(), true).empty()) << i;
  }
  EXPECT_FALSE(fs::exists(fs::path(chain[1].root()) / "data/big"));
}

TEST_F(TimeoutTest, IdleAndDribblingPeersHoldNothing) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 2,
                    {"--io-timeout=1", "--resume-window=1"});
  ASSERT_TRUE(chain.started());
  // One address opens many idle connections: past its cap they are closed at
  // once, and the rest after the time-out; another client is served.
  std::vector<std::unique_ptr<RawClient>> idle;
  for (int i = 0; i < 64; ++i) {
    idle.push_back(std::make_unique<RawClient>("127.0.0.9", "127.0.0.2", chain.port()));
  }
  EXPECT_TRUE(idle.back()->closedWithin(5000));
  TempDir::write(dir.file("src/f"), 5000, 2, fs::perms(0644));
  const RunProcess::Result served = runCopy({chain.hostsArg(), dir.file("src/f"), "/data/"});
  EXPECT_EQ(served.status, 0) << served.err;
  for (const auto& connection : idle) EXPECT_TRUE(connection->closedWithin(10000));

  // A sender of a byte now and then is closed, and its session given up.
  RawClient slow("127.0.0.9", "127.0.0.2", chain.port());
  ASSERT_TRUE(slow.handshake());
  slow.send(WireBytes().i32(C2H_BEGIN_UPLOAD).i32(1).str(chain[0].id()).flag(true));
  ASSERT_EQ(slow.readInt32(), BEGIN_OK);
  slow.send(WireBytes().i32(C2H_RESUME_UPLOAD).i64(100000).str("g").str("/data/g").i32(0644));
  ASSERT_EQ(slow.readInt32(), RESUME_OK);
  EXPECT_EQ(slow.readInt64(), 0);
  bool closed = false;
  for (int i = 0; i < 100 && !closed; ++i) {
    slow.send("x");
    closed = slow.closedWithin(200);
  }
  EXPECT_TRUE(closed);
  const RunProcess::Result next = runCopy({chain.hostsArg(), dir.file("src/f"), "/data/"});
  EXPECT_EQ(next.status, 0) << next.err;
  EXPECT_FALSE(fs::exists(fs::path(chain[0].root()) / "data/g"));
  EXPECT_TRUE(waitFor([&] { return filesUnder(chain[0].root(), true).empty(); }));
}

TEST_F(TimeoutTest, ForeignServiceInTheHostSetIsDroppedAtOnce) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 3);
  ASSERT_TRUE(chain.started());
  chain[1].stop();  // its address and port now belong to a service that talks first
  TCPSocket banner;
  banner.listen("127.0.0.3", chain.port());
  std::atomic<bool> done{false};
  std::thread service([&] {  // greets each connection and keeps it open without reading
    std::vector<std::unique_ptr<TCPSocket>> open;
    for (int round = 0; round < 600 && !done; ++round) {
      if (auto peer = banner.accept(100)) {
        peer->write("SSH-2.0-banner\r\n", 16);
        open.push_back(std::move(peer));
      }
    }
  });
  TempDir::write(dir.file("src/f"), 5000, 3, fs::perms(0644));
  const RunProcess::Result r = runCopy({chain.hostsArg(), dir.file("src/f"), "/data/"});
  done = true;
  service.join();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(r.err, chain[1].id())) << r.err;
  for (size_t i : {0, 2}) {
    EXPECT_EQ(TempDir::read(fs::path(chain[i].root()) / "data/f"), TempDir::read(dir.file("src/f"))) << i;
  }
}

TEST_F(TimeoutTest, HostSearchStopsWhenItsClientLeaves) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 1);
  ASSERT_TRUE(chain.started());
  // Eight services that accept connections and never say a word.
  std::vector<std::unique_ptr<TCPSocket>> silent;
  WireBytes begin;
  begin.i32(C2H_BEGIN_UPLOAD).i32(9).str(chain[0].id());
  for (int i = 0; i < 8; ++i) {
    silent.push_back(std::make_unique<TCPSocket>());
    silent.back()->listen("127.0.0.3", 0);
    begin.str("127.0.0.3:" + std::to_string(silent.back()->getListenerPort()));
  }
  {
    RawClient client("127.0.0.1", "127.0.0.2", chain.port());
    ASSERT_TRUE(client.handshake());
    client.send(begin.flag(true));
  }  // gone while the head waits on the first silent service
  EXPECT_TRUE(waitFor([&] {
    return contains(TempDir::read(chain[0].logFile()), "Host search for upload");
  }, 20000));
  TempDir::write(dir.file("src/f"), 100, 9, fs::perms(0644));
  const RunProcess::Result r = runCopy({chain.hostsArg(), dir.file("src/f"), "/data/"});
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(TimeoutTest, TermEndsADaemonBlockedOnItsRelayLink) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 2, {"--io-timeout=60"});
  ASSERT_TRUE(chain.started());
  TempDir::write(dir.file("src/big"), 64 << 20, 4, fs::perms(0644));
  RunProcess copy(HIVE_BINARY_DIR "/hivecopy", {chain.hostsArg(), dir.file("src/big"), "/data/"});
  ASSERT_TRUE(waitFor([&] { return stagedBytes(chain[1].root(), "big") > 1 << 20; }));
  chain[1].signal(SIGSTOP);
  // Once the head's relay link is full, the head is blocked writing to it.
  int64_t staged = -1;
  ASSERT_TRUE(waitFor([&] {
    const int64_t now = stagedBytes(chain[0].root(), "big");
    const bool still = now == staged;
    staged = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return still;
  }));
  chain[0].signal(SIGTERM);
  EXPECT_EQ(chain[0].waitExit(5000), 0);
  EXPECT_TRUE(filesUnder(chain[0].root(), true).empty());
  // Reset by the head on its way out, the client goes on with the next host.
  chain[1].signal(SIGCONT);
  const RunProcess::Result r = copy.wait(kRunLimitMs);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(r.err, "Unable to connect or lost connection to " + chain[0].id())) << r.err;
  EXPECT_TRUE(TempDir::read(fs::path(chain[1].root()) / "data/big") ==
              TempDir::read(dir.file("src/big")));
}

TEST_F(TimeoutTest, FullDiskFailsTheFileAndGivesItsSpaceBack) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace with a small tmpfs";
  if (RunProcess("unshare", {"-m", "true"}).wait(10000).status != 0) {
    GTEST_SKIP() << "unshare -m is not available here";
  }
  // Each daemon's root is a 4 MiB tmpfs that only it sees.
  const std::string wrapper = dir.file("hopperd-on-tmpfs");
  TempDir::write(wrapper, "#!/bin/sh\n"
                          "for a; do case $a in --root=*) root=${a#--root=};; esac; done\n"
                          "exec unshare -m --propagation private sh -c "
                          "'mount -t tmpfs -o size=4m tmpfs \"$1\" && shift && exec \"$@\"' "
                          "sh \"$root\" " HIVE_BINARY_DIR "/hopperd \"$@\"\n");
  fs::permissions(wrapper, fs::perms(0755));
  DaemonChain chain(wrapper, dir.path(), 2);
  ASSERT_TRUE(chain.started());
  TempDir::write(dir.file("src/a"), 1000, 5, fs::perms(0644));
  TempDir::write(dir.file("src/b"), 6 << 20, 6, fs::perms(0644));
  TempDir::write(dir.file("src/c"), 2 << 20, 7, fs::perms(0644));
  const RunProcess::Result r = runCopy({chain.hostsArg(), dir.file("src/"), "/data"});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "No space left on device")) << r.err;
  for (size_t i = 0; i < chain.size(); ++i) {
    // What the daemon sees in its namespace: a and c, nothing of b, nothing staged.
    const RunProcess::Result list =
        RunProcess("nsenter", {"-t", std::to_string(chain[i].pid()), "-m", "--", "sh", "-c",
                               "find '" + chain[i].root() + "' -type f | sort"})
            .wait(10000);
    EXPECT_EQ(list.out, chain[i].root() + "/data/a\n" + chain[i].root() + "/data/c\n") << i;
  }
}
