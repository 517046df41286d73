// Real hivecopy and hopperd processes on loopback addresses, in the
// situations where two uploads, or a client and a stranger, could be mixed
// up: a re-run after a killed client, a paused upload, a claimed identity,
// a directory swapped for a link before commit, error texts past the reply
// bound.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "hopper/hopperMisc.h"
#include "support/DaemonProcess.h"
#include "support/FakeDaemon.h"
#include "support/RawClient.h"
#include "support/RunProcess.h"
#include "support/TempDir.h"
#include "util/System.h"

namespace fs = std::filesystem;

namespace {

const int kRunLimitMs = 120000;
const int kRelayIdentity = 0x55333040;
const int kRelayCommitted = 2;  // how a daemon hears a commit reply

RunProcess::Result runCopy(const std::vector<std::string>& args) {
  return RunProcess(HIVE_BINARY_DIR "/hivecopy", args).wait(kRunLimitMs);
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A begin for hosts (as a set: sorted) asking not to stop the agents.
std::string begin(std::vector<std::string> hosts) {
  std::sort(hosts.begin(), hosts.end());
  WireBytes bytes;
  bytes.i32(C2H_BEGIN_UPLOAD).i32(int(hosts.size()));
  for (const std::string& host : hosts) bytes.str(host);
  return bytes.flag(true);
}

std::string announce(long size, const std::string& name, const std::string& path) {
  return WireBytes().i32(C2H_RESUME_UPLOAD).i64(size).str(name).str(path).i32(0644);
}

}  // namespace

class UploadSafetyTest : public ::testing::Test {
 protected:
  fs::path root(DaemonChain& chain, size_t i) { return chain[i].root(); }
  TempDir dir;
};

TEST_F(UploadSafetyTest, ReRunAfterAKilledClientNeverMixesTwoUploads) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 4);
  ASSERT_TRUE(chain.started());
  TempDir::write(dir.file("src/a-small"), 1000, 1, fs::perms(0644));
  TempDir::write(dir.file("src/big"), 48 << 20, 2, fs::perms(0644));
  RunProcess first(HIVE_BINARY_DIR "/hivecopy", {chain.hostsArg(), dir.file("src/"), "/data"});
  ASSERT_TRUE(waitFor([&] { return stagedBytes(root(chain, 3), "big") > 4 << 20; }));
  first.signal(SIGKILL);
  EXPECT_EQ(first.waitExit(10000), 128 + SIGKILL);
  // The same command at once, with the small file gone and the big one
  // changed but of the same size.
  fs::remove(dir.file("src/a-small"));
  TempDir::write(dir.file("src/big"), 48 << 20, 3, fs::perms(0644));
  const RunProcess::Result second = runCopy({chain.hostsArg(), dir.file("src/"), "/data"});
  EXPECT_EQ(second.status, 0) << second.err;
  const std::string expected = TempDir::read(dir.file("src/big"));
  for (size_t i = 0; i < chain.size(); ++i) {
    EXPECT_TRUE(TempDir::read(root(chain, i) / "data/big") == expected) << i;
    EXPECT_FALSE(fs::exists(root(chain, i) / "data/a-small")) << i;
    EXPECT_TRUE(waitFor([&] { return filesUnder(root(chain, i), true).empty(); })) << i;
  }
}

TEST_F(UploadSafetyTest, PausedUploadIsNotTakenOver) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 3);
  ASSERT_TRUE(chain.started());
  TempDir::write(dir.file("a/big"), 48 << 20, 4, fs::perms(0644));
  TempDir::write(dir.file("b/small"), 100, 5, fs::perms(0644));
  RunProcess paused(HIVE_BINARY_DIR "/hivecopy", {chain.hostsArg(), dir.file("a/big"), "/data/"});
  ASSERT_TRUE(waitFor([&] { return stagedBytes(root(chain, 2), "big") > 1 << 20; }));
  paused.signal(SIGSTOP);
  const RunProcess::Result other = runCopy({chain.hostsArg(), dir.file("b/small"), "/data/"});
  EXPECT_EQ(other.status, 1);
  EXPECT_TRUE(contains(other.err, "No good hosts left")) << other.err;
  paused.signal(SIGCONT);
  const RunProcess::Result resumed = paused.wait(kRunLimitMs);
  EXPECT_EQ(resumed.status, 0) << resumed.err;
  for (size_t i = 0; i < chain.size(); ++i) {
    EXPECT_TRUE(TempDir::read(root(chain, i) / "data/big") == TempDir::read(dir.file("a/big")));
    EXPECT_FALSE(fs::exists(root(chain, i) / "data/small")) << i;
  }
}

TEST_F(UploadSafetyTest, ClaimedClientAddressGrantsNothing) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 2);
  ASSERT_TRUE(chain.started());
  const std::vector<std::string> hosts{chain[0].id(), chain[1].id()};
  {  // The victim stages half a file from 127.0.0.1, then vanishes.
    RawClient victim("127.0.0.1", "127.0.0.2", chain.port());
    ASSERT_TRUE(victim.handshake());
    victim.send(begin(hosts));
    ASSERT_EQ(victim.readInt32(), BEGIN_OK);
    victim.send(announce(10, "f", "/v/f"));
    ASSERT_EQ(victim.readInt32(), RESUME_OK);
    EXPECT_EQ(victim.readInt64(), 0);
    victim.send("hello");
    ASSERT_TRUE(waitFor([&] { return stagedBytes(root(chain, 1), "f") == 5; }));
  }
  const std::string identity =
      WireBytes().i32(kRelayIdentity).str("127.0.0.1").str("0123456789abcdef0123456789abcdef").str("x");
  for (size_t i = 0; i < chain.size(); ++i) {
    const std::string address = "127.0.0." + std::to_string(i + 2);
    RawClient claimer("127.0.0.9", address, chain.port());
    ASSERT_TRUE(claimer.handshake());
    claimer.send(identity + WireBytes().i32(C2H_COMMIT_UPLOAD).bytes());
    EXPECT_EQ(claimer.readInt32(), kRelayCommitted);  // answered as a daemon...
    EXPECT_EQ(claimer.readString(), "");              // ...with nothing committed
    RawClient plain("127.0.0.9", address, chain.port());
    ASSERT_TRUE(plain.handshake());
    plain.send(WireBytes().i32(C2H_COMMIT_UPLOAD));
    EXPECT_EQ(plain.readString(), "");
    // Resuming in person only works for the orphan's own client.
    plain.send(announce(10, "f", "/v/f"));
    EXPECT_EQ(plain.readInt32(), RESUME_NO_SESSION);
    plain.send(begin({hosts.begin() + long(i), hosts.end()}));
    EXPECT_EQ(plain.readInt32(), BEGIN_HEAD_BUSY);
  }
  for (size_t i = 0; i < chain.size(); ++i) {
    EXPECT_FALSE(fs::exists(root(chain, i) / "v/f")) << i;
    EXPECT_EQ(stagedBytes(root(chain, i), "f"), 5) << i;  // still the victim's, untouched
  }
}

TEST_F(UploadSafetyTest, DirectorySwappedForALinkBeforeCommitChangesNothingOutside) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 1);
  ASSERT_TRUE(chain.started());
  fs::create_directories(dir.file("outside"));
  RawClient client("127.0.0.1", "127.0.0.2", chain.port());
  ASSERT_TRUE(client.handshake());
  client.send(begin({chain[0].id()}));
  ASSERT_EQ(client.readInt32(), BEGIN_OK);
  client.send(announce(5, "f", "/race/sub/f"));
  ASSERT_EQ(client.readInt32(), RESUME_OK);
  EXPECT_EQ(client.readInt64(), 0);
  client.send("hello");
  EXPECT_EQ(client.readString(), "");
  const fs::path race = root(chain, 0) / "race";
  fs::rename(race / "sub", race / "moved");
  fs::create_directory_symlink(dir.file("outside"), race / "sub");
  client.send(WireBytes().i32(C2H_COMMIT_UPLOAD));
  EXPECT_EQ(client.readString(), chain[0].id() + ": /race/sub/f: /race/sub: " + System::errorText(ELOOP));
  EXPECT_TRUE(fs::is_empty(dir.file("outside")));
  EXPECT_FALSE(fs::exists(race / "moved/f"));
}

TEST_F(UploadSafetyTest, OversizedErrorTextsDropNoHealthyHost) {
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 3);
  ASSERT_TRUE(chain.started());
  // A 22 KB target under a regular file: every host refuses it, naming it.
  std::string target = "/blocker";
  while (target.size() < 22000) target += "/" + std::string(200, 'p');
  for (size_t i = 0; i < chain.size(); ++i) TempDir::write(root(chain, i) / "blocker", "x");
  TempDir::write(dir.file("src/f"), 10, 8, fs::perms(0644));
  const RunProcess::Result r = runCopy({chain.hostsArg(), dir.file("src/f"), target + "/f"});
  EXPECT_EQ(r.status, 1);
  EXPECT_FALSE(contains(r.err, "lost connection")) << r.err.substr(0, 2000);
  EXPECT_TRUE(contains(r.err, "[cut]")) << r.err.substr(0, 2000);
  for (size_t i = 0; i < chain.size(); ++i) {
    EXPECT_TRUE(contains(r.err, chain[i].id() + ": ")) << i;
    EXPECT_EQ(TempDir::read(root(chain, i) / "blocker"), "x");
  }
}

TEST(DaemonCommandLineTest, StrayArgumentsAreRefusedWithTheUsage) {
  TempDir dir;
  const RunProcess::Result r =
      RunProcess(HIVE_BINARY_DIR "/hopperd", {"--root=" + dir.path(), "--state-dir=" + dir.path(),
                                              "stray"})
          .wait(10000);
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.out, "Usage: hopperd [switches]"));
  EXPECT_TRUE(contains(r.err, "Unexpected argument \"stray\"")) << r.err;
}

TEST(DaemonCommandLineTest, HangUpReopensTheLogFileAfterRotation) {
  TempDir dir;
  DaemonChain chain(HIVE_BINARY_DIR "/hopperd", dir.path(), 1);
  ASSERT_TRUE(chain.started());
  const std::string log = chain[0].logFile();
  fs::rename(log, log + ".1");  // what log rotation does
  chain[0].signal(SIGHUP);
  EXPECT_TRUE(waitFor([&] { return contains(TempDir::read(log), "Log file reopened"); }));
  EXPECT_TRUE(RawClient("127.0.0.1", "127.0.0.2", chain.port()).handshake());  // still serving
  chain[0].signal(SIGTERM);
  EXPECT_EQ(chain[0].waitExit(10000), 0);
  EXPECT_TRUE(contains(TempDir::read(log), "Signal received"));
}

TEST(DaemonCommandLineTest, UnderSystemdRecordsGoToStandardError) {
  const RunProcess::Result r =
      RunProcess(HIVE_BINARY_DIR "/hopperd", {"--log-level=info", "--version"},
                 {{"JOURNAL_STREAM", std::string("8:12345")}})
          .wait(10000);
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(contains(r.err, "Logging enabled for hopperd")) << r.err;
}
