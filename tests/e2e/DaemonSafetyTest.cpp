// Real hivecopy and hopperd processes on loopback addresses, with peers that
// idle, dribble, speak another protocol, vanish or claim another's identity:
// no wait of a daemon outlasts its time-out, two uploads never mix, and
// nothing half-copied becomes visible.
#include <gtest/gtest.h>
#include <signal.h>

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
const int kRelayIdentity = 0x55333040;
const int kRelayCommitted = 2;  // how a daemon hears a commit reply

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

// Handshake, begin with hosts and announce a file of size bytes called name
// at path; true when the daemon takes it from its first byte.
bool startFile(RawClient& c, const std::vector<std::string>& hosts, long size,
               const std::string& name, const std::string& path) {
  return c.handshake() && c.send(begin(hosts)) && c.readInt32() == BEGIN_OK &&
         c.send(announce(size, name, path)) && c.readInt32() == RESUME_OK && c.readInt64() == 0;
}

}  // namespace

class DaemonSafetyTest : public DaemonChainTest {
 protected:
  // hivecopy of source to target on every host of the chain.
  std::unique_ptr<RunProcess> copy(const std::string& source, const std::string& target) {
    std::string hosts = "--hosts=";
    for (const auto& d : daemons) hosts += (d == daemons[0] ? "" : " ") + d->id;
    return std::make_unique<RunProcess>(HIVE_BINARY_DIR "/hivecopy",
                                        std::vector<std::string>{hosts, source, target});
  }
  // Copies a new dir/src/name of size bytes to /data/ on every host.
  RunProcess::Result run(const std::string& name, size_t size, unsigned seed) {
    TempDir::write(dir.file("src/" + name), size, seed, fs::perms(0644));
    return copy(dir.file("src/" + name), "/data/")->wait(kRunLimitMs);
  }
  // Host i holds src/name as /data/name.
  bool holds(size_t i, const std::string& name) {
    return TempDir::read(root(i) + "/data/" + name) == TempDir::read(dir.file("src/" + name));
  }
};

TEST_F(DaemonSafetyTest, IdleAndDribblingPeersHoldNothing) {
  start(2, {"--io-timeout=1", "--resume-window=1"});
  // One address opens many idle connections: past its cap they are closed at
  // once, and the rest after the time-out; another client is served.
  std::vector<std::unique_ptr<RawClient>> idle;
  for (int i = 0; i < 64; ++i) {
    idle.push_back(std::make_unique<RawClient>("127.0.0.9", "127.0.0.2", port));
  }
  EXPECT_TRUE(idle.back()->closedWithin(5000));
  RunProcess::Result r = run("f", 5000, 2);
  EXPECT_EQ(r.status, 0) << r.err;
  for (const auto& connection : idle) EXPECT_TRUE(connection->closedWithin(10000));

  // A sender of a byte now and then is closed, and its session given up.
  RawClient slow("127.0.0.9", "127.0.0.2", port);
  ASSERT_TRUE(startFile(slow, {daemon(0).id}, 100000, "g", "/data/g"));
  bool closed = false;
  for (int i = 0; i < 100 && !closed; ++i) closed = !slow.send("x") || slow.closedWithin(200);
  EXPECT_TRUE(closed);
  r = run("f", 5000, 2);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_FALSE(fs::exists(root(0) + "/data/g"));
  EXPECT_TRUE(waitFor([&] { return filesUnder(root(0), true).empty(); }));
}

// The second host's address and port belong to a service that greets each
// connection and keeps it open without reading.
TEST_F(DaemonSafetyTest, ForeignServiceInTheHostSetIsDroppedAtOnce) {
  start(3);
  daemon(1).stop();
  TCPSocket banner;
  banner.listen("127.0.0.3", port);
  std::atomic<bool> done{false};
  std::thread service([&] {
    std::vector<std::unique_ptr<TCPSocket>> open;
    for (int round = 0; round < 600 && !done; ++round) {
      if (auto peer = banner.accept(100)) {
        peer->write("SSH-2.0-banner\r\n", 16);
        open.push_back(std::move(peer));
      }
    }
  });
  const RunProcess::Result r = run("f", 5000, 3);
  done = true;
  service.join();
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_HAS(r.err, daemon(1).id);
  EXPECT_TRUE(holds(0, "f") && holds(2, "f"));
}

TEST_F(DaemonSafetyTest, HostSearchStopsWhenItsClientLeaves) {
  start(1);
  // Eight services that accept connections and never say a word.
  std::vector<std::unique_ptr<TCPSocket>> silent;
  std::vector<std::string> hosts{daemon(0).id};
  for (int i = 0; i < 8; ++i) {
    silent.push_back(std::make_unique<TCPSocket>());
    silent.back()->listen("127.0.0.3", 0);
    hosts.push_back("127.0.0.3:" + std::to_string(silent.back()->getListenerPort()));
  }
  {
    RawClient client("127.0.0.1", "127.0.0.2", port);
    ASSERT_TRUE(client.handshake());
    client.send(begin(hosts));
  }  // gone while the head waits on the first silent service
  EXPECT_TRUE(waitFor([&] {
    return TempDir::read(daemon(0).logFile).find("Host search for upload") != std::string::npos;
  }, 20000));
  const RunProcess::Result r = run("f", 100, 9);
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(DaemonSafetyTest, TermEndsADaemonBlockedOnItsRelayLink) {
  start(2, {"--io-timeout=60"});
  TempDir::write(dir.file("src/big"), 64 << 20, 4, fs::perms(0644));
  std::unique_ptr<RunProcess> copying = copy(dir.file("src/big"), "/data/");
  ASSERT_TRUE(waitFor([&] { return stagedBytes(root(1), "big") > 1 << 20; }));
  daemon(1).signal(SIGSTOP);
  // Once the head's relay link is full, the head is blocked writing to it.
  int64_t staged = -1;
  ASSERT_TRUE(waitFor([&] {
    const int64_t now = stagedBytes(root(0), "big");
    const bool still = now == staged;
    staged = now;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return still;
  }));
  daemon(0).signal(SIGTERM);
  EXPECT_EQ(daemon(0).waitExit(5000), 0);
  EXPECT_TRUE(filesUnder(root(0), true).empty());
  // Reset by the head on its way out, the client goes on with the next host.
  daemon(1).signal(SIGCONT);
  const RunProcess::Result r = copying->wait(kRunLimitMs);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_HAS(r.err, "Unable to connect or lost connection to " + daemon(0).id);
  EXPECT_TRUE(holds(1, "big"));
}

TEST_F(DaemonSafetyTest, ReRunAfterAKilledClientNeverMixesTwoUploads) {
  start(4);
  TempDir::write(dir.file("src/a-small"), 1000, 1, fs::perms(0644));
  TempDir::write(dir.file("src/big"), 48 << 20, 2, fs::perms(0644));
  std::unique_ptr<RunProcess> first = copy(dir.file("src/"), "/data");
  ASSERT_TRUE(waitFor([&] { return stagedBytes(root(3), "big") > 4 << 20; }));
  first->signal(SIGKILL);
  EXPECT_EQ(first->waitExit(10000), 128 + SIGKILL);
  // The same command at once, with the small file gone and the big one
  // changed but of the same size.
  fs::remove(dir.file("src/a-small"));
  TempDir::write(dir.file("src/big"), 48 << 20, 3, fs::perms(0644));
  const RunProcess::Result second = copy(dir.file("src/"), "/data")->wait(kRunLimitMs);
  EXPECT_EQ(second.status, 0) << second.err;
  for (size_t i = 0; i < daemons.size(); ++i) {
    EXPECT_TRUE(holds(i, "big")) << i;
    EXPECT_FALSE(fs::exists(root(i) + "/data/a-small")) << i;
    EXPECT_TRUE(waitFor([&] { return filesUnder(root(i), true).empty(); })) << i;
  }
}

// Another address that claims to relay for the client, or begins, commits
// or resumes in person, gets nothing of an orphaned upload; its own client
// can still abort it, which removes it everywhere.
TEST_F(DaemonSafetyTest, ClaimedClientAddressGrantsNothing) {
  start(2);
  const std::vector<std::string> hosts{daemon(0).id, daemon(1).id};
  {  // The victim stages half a file from 127.0.0.1, then vanishes.
    RawClient victim("127.0.0.1", "127.0.0.2", port);
    ASSERT_TRUE(startFile(victim, hosts, 10, "f", "/v/f"));
    victim.send("hello");
    ASSERT_TRUE(waitFor([&] { return stagedBytes(root(1), "f") == 5; }));
  }
  const std::string identity = WireBytes().i32(kRelayIdentity).str("127.0.0.1")
                                   .str("0123456789abcdef0123456789abcdef").str("x");
  for (size_t i = 0; i < daemons.size(); ++i) {
    RawClient claimer("127.0.0.9", daemon(i).address, port);
    ASSERT_TRUE(claimer.handshake());
    claimer.send(identity + WireBytes().i32(C2H_COMMIT_UPLOAD).bytes());
    EXPECT_EQ(claimer.readInt32(), kRelayCommitted);  // answered as a daemon...
    EXPECT_EQ(claimer.readString(), "");              // ...with nothing committed
    RawClient plain("127.0.0.9", daemon(i).address, port);
    ASSERT_TRUE(plain.handshake());
    plain.send(WireBytes().i32(C2H_COMMIT_UPLOAD));
    EXPECT_EQ(plain.readString(), "");
    plain.send(announce(10, "f", "/v/f"));
    EXPECT_EQ(plain.readInt32(), RESUME_NO_SESSION);
    plain.send(begin({hosts.begin() + long(i), hosts.end()}));
    EXPECT_EQ(plain.readInt32(), BEGIN_HEAD_BUSY);
    EXPECT_FALSE(fs::exists(root(i) + "/v/f")) << i;
    EXPECT_EQ(stagedBytes(root(i), "f"), 5) << i;  // still the victim's, untouched
  }
  RawClient owner("127.0.0.1", "127.0.0.2", port);
  ASSERT_TRUE(owner.handshake());
  owner.send(WireBytes().i32(C2H_ABORT_UPLOAD));
  EXPECT_EQ(owner.readInt32(), 0);
  for (size_t i = 0; i < daemons.size(); ++i) {
    EXPECT_FALSE(fs::exists(root(i) + "/v")) << i;
    EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
  }
}

TEST_F(DaemonSafetyTest, OversizedErrorTextsDropNoHealthyHost) {
  start(3);
  // A 22 KB target under a regular file: every host refuses it, naming it.
  std::string target = "/blocker";
  while (target.size() < 22000) target += "/" + std::string(200, 'p');
  for (size_t i = 0; i < daemons.size(); ++i) TempDir::write(root(i) + "/blocker", "x");
  TempDir::write(dir.file("src/f"), "0123456789");
  const RunProcess::Result r = copy(dir.file("src/f"), target + "/f")->wait(kRunLimitMs);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.find("lost connection"), std::string::npos) << r.err.substr(0, 2000);
  EXPECT_NE(r.err.find("[cut]"), std::string::npos) << r.err.substr(0, 2000);
  for (size_t i = 0; i < daemons.size(); ++i) {
    EXPECT_HAS(r.err, daemon(i).id + ": ");
    EXPECT_EQ(TempDir::read(root(i) + "/blocker"), "x");
  }
}

// A hang-up reopens the log file after rotation; a peer's hostile length
// closes only its own connection; SIGTERM ends the daemon cleanly.
TEST_F(DaemonSafetyTest, HangUpReopensTheLogFileAndHostileLengthsCloseOnlyTheirConnection) {
  start(1);
  const std::string log = daemon(0).logFile;
  fs::rename(log, log + ".1");
  daemon(0).signal(SIGHUP);
  EXPECT_TRUE(waitFor([&] {
    return TempDir::read(log).find("Log file reopened") != std::string::npos;
  }));
  RawClient hostile("127.0.0.1", "127.0.0.2", port);
  hostile.send(WireBytes().i32(C2H_NEW_GET_VERSION).i32(5).i32(0x7fffffff));
  EXPECT_TRUE(hostile.closedWithin(10000));  // not waiting for 2 GiB for 30 s
  EXPECT_TRUE(RawClient("127.0.0.1", "127.0.0.2", port).handshake());
  daemon(0).signal(SIGTERM);
  EXPECT_EQ(daemon(0).waitExit(10000), 0);
  EXPECT_HAS(TempDir::read(log), "Signal received");
}

// Stray arguments are refused with the usage; under systemd, records go to
// standard error.
TEST(DaemonCommandLineTest, StrayArgumentsAndLoggingUnderSystemd) {
  TempDir dir;
  RunProcess::Result r = RunProcess(HIVE_BINARY_DIR "/hopperd",
                                    {"--root=" + dir.path(), "--state-dir=" + dir.path(), "stray"})
                             .wait(10000);
  EXPECT_EQ(r.status, 1);
  EXPECT_HAS(r.out, "Usage: hopperd [switches]");
  EXPECT_HAS(r.err, "Unexpected argument \"stray\"");
  r = RunProcess(HIVE_BINARY_DIR "/hopperd", {"--log-level=info", "--version"},
                 {{"JOURNAL_STREAM", std::string("8:12345")}})
          .wait(10000);
  EXPECT_EQ(r.status, 0);
  EXPECT_HAS(r.err, "Logging enabled for hopperd");
}
