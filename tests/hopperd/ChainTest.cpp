// Real hopperd processes on 127.0.0.2, 127.0.0.3, ... driven by the client's
// upload engine in this process.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <set>
#include <sstream>

#include "hopper/UploadManager.h"
#include "hopper/hopperMisc.h"
#include "util/FileSystem.h"
#include "hopperd/Server.h"
#include "support/CorruptingProxy.h"
#include "support/DaemonProcess.h"
#include "support/FakeDaemon.h"
#include "support/TempDir.h"
#include "util/NetEncoding.h"

namespace fs = std::filesystem;

namespace {

// A few hundred files in nested folders with blanks in their names, some
// empty, one of 3 MB, with assorted permission bits. Returns the bytes.
int64_t makeTree(const fs::path& top) {
  const fs::perms modes[] = {fs::perms(0644), fs::perms(0755), fs::perms(0600), fs::perms(0640)};
  int64_t total = 0;
  for (unsigned i = 0; i < 300; ++i) {
    const size_t size = i % 10 == 0 ? 0 : (i * 37) % 5000;
    const fs::path folder = top / ("d" + std::to_string(i % 5)) / ("e " + std::to_string(i % 3));
    TempDir::write(folder / ("f " + std::to_string(i) + ".txt"), size, i, modes[i % 4]);
    total += int64_t(size);
  }
  TempDir::write(top / "big file", 3 << 20, 7, fs::perms(0700));
  return total + (3 << 20);
}

// The data bytes a daemon's log says its last session received.
int64_t loggedBytes(const std::string& log) {
  const std::string text = TempDir::read(log), key = "committed: ";
  const size_t at = text.rfind(key);
  return at == std::string::npos ? -1 : std::stoll(text.substr(at + key.size()));
}

// Writes what it is given, but for one byte flipped once, past the first
// `after` bytes written through it: a host whose disk or memory damaged
// what it staged.
class CorruptingFileSystem : public FileSystem {
 public:
  explicit CorruptingFileSystem(int64_t after) : mAfter(after) {}
  bool writeAll(int fd, const char* data, size_t n) override {
    const int64_t before = mWritten.fetch_add(int64_t(n));
    if (before + int64_t(n) <= mAfter || mDone.exchange(true)) {
      return FileSystem::writeAll(fd, data, n);
    }
    std::string damaged(data, n);
    damaged[size_t(std::max<int64_t>(0, mAfter - before))] ^= 1;
    return FileSystem::writeAll(fd, damaged.data(), n);
  }

 private:
  const int64_t mAfter;
  std::atomic<int64_t> mWritten{0};
  std::atomic<bool> mDone{false};
};

}  // namespace

class ChainTest : public ::testing::Test {
 protected:
  // Daemons on 127.0.0.2, 127.0.0.3, ... (n of them), one port; those in absent never start.
  void start(size_t n, const std::vector<std::string>& extra = {}, std::set<size_t> absent = {}) {
    std::vector<std::string> addresses;
    for (size_t i = 0; i < n; ++i) addresses.push_back("127.0.0." + std::to_string(i + 2));
    port = DaemonProcess::freePort(addresses);
    for (size_t i = 0; i < n; ++i) {
      daemons.push_back(std::make_unique<DaemonProcess>(HIVE_BINARY_DIR "/hopperd", addresses[i], port,
                                                        dir.file("d" + std::to_string(i)), extra));
      ids.push_back(daemons.back()->id());
      ASSERT_TRUE(absent.count(i) || daemons.back()->start()) << ids.back();
    }
  }
  fs::path root(size_t i) const { return daemons[i]->root(); }
  // The name the client knows daemon i by; reports must use it.
  static std::string name(size_t i) { return "node" + std::to_string(i); }
  // Runs the upload of pairs on another thread; wait for it with finish().
  void startUpload(const FilePairs& pairs, bool stopAgents = false) {
    IPtoNameMap hosts;
    for (size_t i = 0; i < ids.size(); ++i) hosts[ids[i]] = name(i);
    client = std::make_unique<UploadManager>(hosts, false, stopAgents, -1, System::OS_LINUX, out,
                                             err);
    result = std::async(std::launch::async, [this, pairs] {
      try {
        return client->uploadBatch(pairs);
      } catch (const std::exception& e) {
        thrown = e.what();
        return false;
      }
    });
  }
  // Waits for the upload (a hung one fails, its daemons are killed).
  bool finish() {
    if (result.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
      ADD_FAILURE() << "upload hung";
      for (auto& daemon : daemons) daemon->signal(SIGKILL);
    }
    return result.get();
  }
  // Starts the upload of 3,000 files of 4 KiB in 30 folders to /data/many.
  void startManySmallFiles() {
    for (unsigned i = 0; i < 3000; ++i) {
      TempDir::write(dir.file("src/many/d" + std::to_string(i % 30) + "/f" + std::to_string(i)),
                     4096, i, fs::perms(0644));
    }
    startUpload({{dir.file("src/many"), "/data"}});
  }
  bool upload(const std::string& from, const std::string& to, bool stopAgents = false) {
    startUpload({{from, to}}, stopAgents);
    return finish();
  }
  // A client by hand: begun with every host, it announces a file of size
  // bytes called "f" to remote and sends its first bytes.
  std::unique_ptr<TCPStream> beginByHand(const std::string& remote, long size, const std::string& bytes) {
    NodeSet nodes(ids.begin(), ids.end());
    BadNodeList bad;
    BusyNodeList busy;
    bool reconnect = false;
    std::unique_ptr<TCPStream> stream = findGoodNode(nodes, bad, true);
    if (!stream) return stream;
    stream->socket().setReadTimeout(30000);
    EXPECT_EQ(sendBeginUploadMsg(*stream, nodes, false, bad, busy, err, reconnect), BEGIN_OK);
    const AnnouncementReply reply = sendResumeUploadMsg(*stream, NodeSet(), false, size, 0644, "f", remote);
    EXPECT_EQ(reply.mStatus, RESUME_OK);
    EXPECT_EQ(reply.mPosition, 0);
    stream->write(bytes.data(), std::streamsize(bytes.size())).flush();
    return stream;
  }
  // Four daemons take a small file, then 64 MB. Daemon victim is stopped in
  // the middle of the big one, when nothing may be visible anywhere, then
  // killed or let go on. The others must hold both files at the end.
  bool pauseInTheMiddle(size_t victim, bool kill) {
    start(4);
    TempDir::write(dir.file("src/first"), 1000, 1, fs::perms(0644));
    TempDir::write(dir.file("src/big"), 64 << 20, 9, fs::perms(0640));
    startUpload({{dir.file("src/first"), "/data/first"}, {dir.file("src/big"), "/data/big"}});
    EXPECT_TRUE(waitFor([&] { return stagedBytes(root(3), "big") > 1 << 20; })) << err.str();
    daemons[victim]->signal(SIGSTOP);
    EXPECT_LT(stagedBytes(root(victim), "big"), 64 << 20);  // it is in the middle
    for (size_t i = 0; i < 4; ++i) EXPECT_TRUE(filesUnder(root(i), false).empty()) << i;
    daemons[victim]->signal(kill ? SIGKILL : SIGCONT);
    EXPECT_EQ(daemons[victim]->waitExit(kill ? 10000 : 0), kill ? 128 + SIGKILL : -1);
    const bool ok = finish();
    for (size_t i = 0; i < 4; ++i) {
      if (kill && i == victim) continue;
      EXPECT_TRUE(TempDir::read(root(i) / "data/big") == TempDir::read(dir.file("src/big"))) << i;
      EXPECT_TRUE(fs::exists(root(i) / "data/first")) << i;
      EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
    }
    return ok;
  }

  // The upload in flight ends (its daemons gone) before its client goes.
  TempDir dir;
  std::ostringstream out, err;
  std::unique_ptr<UploadManager> client;
  std::string thrown;
  std::future<bool> result;
  std::vector<std::unique_ptr<DaemonProcess>> daemons;
  std::vector<std::string> ids;
  int port = 0;
};

TEST_F(ChainTest, TreeReachesEveryHostAroundAnUnreachableOneAndCrossesEachLinkOnce) {
  start(5, {}, {2});
  const int64_t total = makeTree(dir.file("src/tree"));
  EXPECT_TRUE(upload(dir.file("src/tree"), "/data"));
  EXPECT_EQ(err.str(), TCPSocket::getHostName() + ": Unable to connect or lost connection to " +
                           name(2) + ".\n");
  for (size_t i : {0, 1, 3, 4}) {
    expectSameTree(dir.file("src/tree"), root(i) / "data/tree");
    EXPECT_TRUE(filesUnder(root(i), true).empty());
  }
  // The head received each byte once; so did the tail.
  EXPECT_EQ(loggedBytes(daemons[0]->logFile()), total);
  EXPECT_EQ(loggedBytes(daemons[4]->logFile()), total);
}

TEST_F(ChainTest, CopySemanticsAndARefusedTarget) {
  start(1);
  const fs::path r = root(0);
  TempDir::write(dir.file("src/f"), 10, 1, fs::perms(0644));
  TempDir::write(dir.file("src/d/x"), 20, 2, fs::perms(0600));
  fs::create_directories(r / "opt/dir");
  TempDir::write(r / "opt/file", 3, 3, fs::perms(0644));
  EXPECT_TRUE(upload(dir.file("src/f"), "/opt/dir"));    // into the directory
  EXPECT_TRUE(upload(dir.file("src/d"), "/opt/sub"));    // becomes /opt/sub/d
  EXPECT_TRUE(upload(dir.file("src/d/"), "/opt/fill"));  // contents only
  EXPECT_EQ(TempDir::read(r / "opt/dir/f"), TempDir::read(dir.file("src/f")));
  EXPECT_TRUE(fs::exists(r / "opt/sub/d/x") && fs::exists(r / "opt/fill/x"));
  EXPECT_FALSE(upload(dir.file("src/d"), "/opt/file"));  // a directory onto a file
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "Not a directory", err.str());
  EXPECT_EQ(fs::file_size(r / "opt/file"), 3u);
  EXPECT_TRUE(filesUnder(r, true).empty());
}

TEST_F(ChainTest, AgentCommandsRunAroundTheRenamesWhenAsked) {
  const std::string target = dir.file("d0/root/data/f"), log = dir.file("agents");
  start(1, {"--stop-agents-cmd=test -e " + target + " || echo stop >> " + log,
            "--start-agents-cmd=test -e " + target + " && echo start >> " + log + "; exit 3"});
  TempDir::write(dir.file("src/f"), 10, 1, fs::perms(0644));
  // The file landed, but a failed command is an error of the run.
  EXPECT_FALSE(upload(dir.file("src/f"), "/data/f", true));
  EXPECT_EQ(TempDir::read(log), "stop\nstart\n");
  EXPECT_PRED_FORMAT2(testing::IsSubstring, name(0) + ": Command \"", err.str());
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "failed: exit status 3", err.str());
  EXPECT_TRUE(upload(dir.file("src/f"), "/data/f"));
  EXPECT_EQ(TempDir::read(log), "stop\nstart\n");
}

TEST_F(ChainTest, NothingIsVisibleBeforeCommit) {
  EXPECT_TRUE(pauseInTheMiddle(0, false)) << err.str();
  EXPECT_EQ(err.str(), "");
}

TEST_F(ChainTest, HeadKilledInALargeFileResumesOnTheNextHost) {
  EXPECT_TRUE(pauseInTheMiddle(0, true)) << err.str();
  EXPECT_PRED_FORMAT2(testing::IsSubstring,
                      "Unable to connect or lost connection to " + name(0) + ".\n", err.str());
  // Restarted, the head finds its journal and removes what it had staged.
  EXPECT_FALSE(filesUnder(root(0), true).empty());
  ASSERT_TRUE(daemons[0]->start());
  EXPECT_TRUE(filesUnder(root(0), true).empty());
  EXPECT_FALSE(fs::exists(root(0) / "data"));
  EXPECT_TRUE(fs::is_empty(daemons[0]->stateDir()));
}

TEST_F(ChainTest, MiddleHostKilledInAFileIsRoutedAround) {
  pauseInTheMiddle(1, true);
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "Errors while committing uploaded file(s):\n" + name(0) +
                      ": Unable to connect or lost connection to " + name(1) + ".", err.str());
}

TEST_F(ChainTest, SecondClientIsBusyEverywhereUntilTheFirstAborts) {
  start(4);
  for (size_t i = 0; i < 4; ++i) TempDir::write(root(i) / "data/keep", 4, 4, fs::perms(0644));
  std::unique_ptr<TCPStream> first = beginByHand("/data/new/", 3, "abc");
  ASSERT_TRUE(first);
  std::string reply;
  *first >> reply;
  EXPECT_EQ(reply, "");
  TempDir::write(dir.file("src/f"), 3, 1, fs::perms(0644));
  EXPECT_FALSE(upload(dir.file("src/f"), "/data/other"));
  EXPECT_EQ(thrown, "No good hosts left");
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_PRED_FORMAT2(testing::IsSubstring, name(i) + ": Server busy", err.str());
  }
  int ignored;
  *first << int(C2H_ABORT_UPLOAD);
  first->flush();
  *first >> ignored;
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_FALSE(fs::exists(root(i) / "data/new")) << i;
    EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
    EXPECT_EQ(fs::file_size(root(i) / "data/keep"), 4u);
  }
}

TEST_F(ChainTest, HostileLengthClosesOnlyThatConnectionAndTermAbortsTheSession) {
  start(1);
  TCPSocket raw;
  raw.connect("127.0.0.2", port, 5000);
  raw.setReadTimeout(10000);
  const std::string hostile = WireBytes().i32(C2H_NEW_GET_VERSION).i32(5).i32(0x7fffffff);
  ASSERT_EQ(raw.write(hostile.data(), int(hostile.size())), int(hostile.size()));
  char byte;
  EXPECT_EQ(raw.read(&byte, 1), 0);  // closed, not waiting for 2 GiB
  std::unique_ptr<TCPStream> other = beginByHand("/new/f", 10, "12345");  // still serving
  ASSERT_TRUE(other);
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "Protocol error from 127.0.0.1",
                      TempDir::read(daemons[0]->logFile()));
  // SIGTERM removes what the session staged and exits 0.
  ASSERT_TRUE(waitFor([&] { return stagedBytes(root(0), "f") == 5; }));
  daemons[0]->signal(SIGTERM);
  EXPECT_EQ(daemons[0]->waitExit(10000), 0);
  EXPECT_FALSE(fs::exists(root(0) / "new"));
}

// Small files stream through the chain without waiting for it. A middle host
// stopped while they flow (its buffers fill) and then killed loses files it
// took but never passed on: the head sends them again from its staged
// copies to the host after it, which says which file it took last.
TEST_F(ChainTest, FilesInFlightPastAKilledMiddleHostAreSentAgain) {
  start(4);
  startManySmallFiles();
  ASSERT_TRUE(waitFor([&] { return filesUnder(root(3), true).size() >= 300; })) << err.str();
  daemons[1]->signal(SIGSTOP);
  // The head goes on until the stopped host's buffers are full.
  waitFor([&] { return filesUnder(root(0), true).size() >= filesUnder(root(3), true).size() + 100; },
          10000);
  daemons[1]->signal(SIGKILL);
  EXPECT_EQ(daemons[1]->waitExit(10000), 128 + SIGKILL);
  EXPECT_TRUE(finish()) << err.str();
  EXPECT_PRED_FORMAT2(testing::IsSubstring,
                      "Unable to connect or lost connection to " + name(1) + ".", err.str());
  for (size_t i : {0, 2, 3}) {
    expectSameTree(dir.file("src/many"), root(i) / "data/many");
    EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
  }
}

// A host that refuses a file still passes it on; its refusal reaches the
// client with the commit reply and fails the run, and the hosts on both
// sides of it commit the file.
TEST_F(ChainTest, AFileAMiddleHostRefusesReachesTheOthersAndFailsTheRun) {
  start(3);
  TempDir::write(root(1) / "data/sub", 3, 3, fs::perms(0644));  // a file where a folder goes
  TempDir::write(dir.file("src/sub/f"), 100000, 1, fs::perms(0644));
  TempDir::write(dir.file("src/g"), 1000, 2, fs::perms(0644));
  EXPECT_FALSE(upload(dir.file("src/"), "/data"));
  EXPECT_PRED_FORMAT2(testing::IsSubstring, name(1) + ": ", err.str());
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "Not a directory", err.str());
  for (size_t i : {0, 2}) {
    EXPECT_EQ(TempDir::read(root(i) / "data/sub/f"), TempDir::read(dir.file("src/sub/f"))) << i;
  }
  for (size_t i : {0, 1, 2}) {
    EXPECT_EQ(TempDir::read(root(i) / "data/g"), TempDir::read(dir.file("src/g"))) << i;
    EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
  }
  EXPECT_EQ(fs::file_size(root(1) / "data/sub"), 3u);
}

// The head killed while small files stream: the host after it holds every
// file the head had taken (nothing waits for replies on the link, so the
// head's end has nothing unread and its last bytes still go out), and the
// client resumes there with the file it was sending.
TEST_F(ChainTest, HeadKilledInATreeLeavesNoFileMissingOnTheOthers) {
  start(3);
  startManySmallFiles();
  ASSERT_TRUE(waitFor([&] { return filesUnder(root(2), true).size() >= 1000; })) << err.str();
  daemons[0]->signal(SIGKILL);
  EXPECT_EQ(daemons[0]->waitExit(10000), 128 + SIGKILL);
  EXPECT_TRUE(finish()) << err.str();
  for (size_t i : {1, 2}) {
    expectSameTree(dir.file("src/many"), root(i) / "data/many");
    EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
  }
}

// A link that damages one byte of a large file: the host behind it finds the
// block's checksum wrong and drops the link; its upstream routes around it
// as around a lost host, and the hosts after it commit the file intact.
TEST_F(ChainTest, AHostBehindACorruptingLinkIsDroppedAndTheOthersCommitIntact) {
  start(4, {}, {1});  // node1 is reached through the proxy only
  DaemonProcess behind(HIVE_BINARY_DIR "/hopperd", "127.0.0.13", port, dir.file("behind"));
  ASSERT_TRUE(behind.start());
  CorruptingProxy proxy("127.0.0.3", port, "127.0.0.13", port, 4 << 20);
  TempDir::write(dir.file("src/big"), 16 << 20, 5, fs::perms(0644));
  EXPECT_TRUE(upload(dir.file("src/big"), "/data/big")) << err.str();
  EXPECT_TRUE(proxy.flipped());
  EXPECT_PRED_FORMAT2(testing::IsSubstring,
                      "Unable to connect or lost connection to " + name(1) + ".", err.str());
  for (size_t i : {0, 2, 3}) {
    EXPECT_TRUE(TempDir::read(root(i) / "data/big") == TempDir::read(dir.file("src/big"))) << i;
    EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
  }
  EXPECT_FALSE(fs::exists(behind.root() + "/data/big"));
  EXPECT_TRUE(filesUnder(behind.root(), true).empty());  // what it staged is dropped
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "failed its checksum",
                      TempDir::read(behind.logFile()));
}

// One host's staged copy differs from what it received (its file system
// flips a byte): that host reports the file and keeps it out of place, the
// run fails, and every other host commits the file intact.
TEST_F(ChainTest, AHostWhoseStagedBytesDifferReportsTheFileAndTheOthersCommitIt) {
  start(3, {}, {1});  // node1 runs in this process, on a damaging file system
  CorruptingFileSystem disk(1 << 20);
  DaemonConfig config;
  config.mBindAddress = "127.0.0.3";
  config.mPort = port;
  config.mRoot = root(1);
  config.mStateDir = daemons[1]->stateDir();
  config.mFileSystem = &disk;
  fs::create_directories(config.mStateDir);
  Server server(config);
  server.listen();
  std::thread serving([&server] { server.run(); });
  TempDir::write(dir.file("src/big"), 4 << 20, 6, fs::perms(0644));
  TempDir::write(dir.file("src/small"), 1000, 7, fs::perms(0644));
  EXPECT_FALSE(upload(dir.file("src/"), "/data"));
  server.stop();
  serving.join();
  EXPECT_PRED_FORMAT2(testing::IsSubstring,
                      name(1) + ": /data/big: the staged copy differs from the bytes the head "
                      "received (checksum mismatch)", err.str());
  for (size_t i : {0, 2}) {
    EXPECT_TRUE(TempDir::read(root(i) / "data/big") == TempDir::read(dir.file("src/big"))) << i;
  }
  for (size_t i : {0, 1, 2}) {
    EXPECT_EQ(TempDir::read(root(i) / "data/small"), TempDir::read(dir.file("src/small"))) << i;
    EXPECT_TRUE(filesUnder(root(i), true).empty()) << i;
  }
  EXPECT_FALSE(fs::exists(root(1) / "data/big"));
}
