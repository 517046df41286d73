#include "hopper/UploadManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "hopper/hopperMisc.h"
#include "support/FakeDaemon.h"
#include "support/PairConnector.h"
#include "support/TempDir.h"
#include "support/Thrown.h"

namespace {

const int kNew = 0x5533303f, kBegin = 0x55333038, kFile = 0x5533303a, kCommit = 0x5533303b,
          kAbort = 0x5533303c;
using Codes = std::vector<int>;

class UploadManagerTest : public ::testing::Test {
 protected:
  // Each daemon is known by the name "host" + the last digit of its address.
  std::unique_ptr<UploadManager> manager(const std::vector<FakeDaemon*>& daemons,
                                         bool verbose = false, int timeout = -1,
                                         IPtoNameMap hosts = {}) {
    for (FakeDaemon* d : daemons) hosts[d->hostId()] = "host" + d->address().substr(8);
    auto m = std::make_unique<UploadManager>(hosts, verbose, false, timeout, System::OS_LINUX, out,
                                             err);
    m->setConnector(&connector);
    return m;
  }
  std::string file(const std::string& name, const std::string& content, int mode = 0644) {
    TempDir::write(dir.file(name), content);
    chmod(dir.file(name).c_str(), mode);
    return dir.file(name);
  }
  static WireBytes announce(long size, const std::string& name, const std::string& path, int mode) {
    return WireBytes().i32(kFile).i64(size).str(name).str(path).i32(mode);
  }

  PairConnector connector;
  TempDir dir;
  std::ostringstream out, err;
};

}  // namespace

TEST_F(UploadManagerTest, WireBytesOfFilesAndTreeThenTheCommit) {
  FakeDaemon daemon(connector, "127.0.0.2");
  const std::string a = file("a.txt", "alpha", 0640);
  file("tree/x", "x", 0600);
  file("tree/sub/y", "yy", 0755);
  std::filesystem::create_symlink("x", dir.file("tree/link"));
  ASSERT_EQ(mkfifo(dir.file("tree/pipe").c_str(), 0644), 0);
  EXPECT_FALSE(manager({&daemon})->uploadBatch({{a, "/dst/a.txt"}, {dir.file("tree"), "/dst"}}));
  const std::string expected =
      WireBytes().i32(kNew).i32(5).str(getVersionString()).i32(kBegin).i32(1).str(daemon.hostId())
          .flag(true).raw(announce(5, "a.txt", "/dst/a.txt", 0640)).raw("alpha")
          .raw(announce(2, "y", "/dst/tree/sub/y", 0755)).raw("yy")
          .raw(announce(1, "x", "/dst/tree/x", 0600)).raw("x").i32(kCommit);
  ASSERT_TRUE(daemon.waitForClosedConnections(1, 5000));
  EXPECT_EQ(daemon.connection(0).received, expected);
  EXPECT_EQ(err.str(), "Skipping " + dir.file("tree/link") + " because it is a symlink\n" +
                           "Skipping " + dir.file("tree/pipe") + " because it is a named pipe\n");
  // The batch result is that of the last entry alone.
  EXPECT_TRUE(manager({&daemon})->uploadBatch({{dir.file("tree/link"), "/d"}, {a, "/d"}}));
  EXPECT_THROW(manager({&daemon})->upload(a, "tmp/x"), std::runtime_error);
  EXPECT_EQ(daemon.connectionCount(), 2);  // the relative target never connected
}

TEST_F(UploadManagerTest, BeginStatusesAndReports) {
  FakeDaemon busy(connector, "127.0.0.2"), odd(connector, "127.0.0.3"),
      partial(connector, "127.0.0.4");
  FakeDaemon::Script script;
  script.beginStatus = 1;
  busy.setScript(script);
  script.beginStatus = 7;  // unknown: the head is dropped
  odd.setScript(script);
  script.beginStatus = 3;
  script.beginBad = {{"127.0.0.5:1", 0}};
  script.beginBusy = {"127.0.0.6:1"};
  script.beginText = "trouble near " + busy.hostId();
  partial.setScript(script);
  const IPtoNameMap others = {{"127.0.0.5:1", "host5"}, {"127.0.0.6:1", "host6"}};
  auto m = manager({&busy, &odd, &partial}, false, -1, others);
  m->beginUpload();
  EXPECT_EQ(m->nodeSet(), NodeSet{partial.hostId()});
  EXPECT_EQ(err.str(), "host2: Server busy\nhost6: Server busy\n" + TCPSocket::getHostName() +
                           ": Unable to connect or lost connection to host5.\n"
                           "Protocol error while communicating with host4: trouble near host2\n");
  err.str("");
  script.beginText = "";
  partial.setScript(script);
  manager({&partial}, false, -1, others)->beginUpload();
  EXPECT_EQ(err.str().find("Protocol error"), std::string::npos) << err.str();  // none without a text
}

// Below what went out to a lost head (the gap goes again) or beyond it; 24 MiB is lost mostly unsent.
TEST_F(UploadManagerTest, DataContinuesFromTheDaemonsPosition) {
  const std::string small = TempDir::pattern(1000000), large = TempDir::pattern(24 << 20);
  const struct { const std::string& content; long position; bool headLost; } cases[] = {
      {small, 0, true}, {small, 100000, true}, {large, 60000, true}, {large, 300000, false}};
  for (const auto& c : cases) {
    const std::string path = file("big", c.content);
    FakeDaemon head(connector, "127.0.0.2"), next(connector, "127.0.0.3");
    FakeDaemon::Script script;
    if (c.headLost) script.closeAfterDataBytes = 100000;
    script.position = c.headLost ? 0 : c.position;
    head.setScript(script);
    script = FakeDaemon::Script();
    script.position = c.position;
    next.setScript(script);
    err.str("");
    EXPECT_TRUE(manager({&head, &next})->upload(path, "/dst/big")) << c.position;
    ASSERT_TRUE((c.headLost ? next : head).waitForClosedConnections(1, 5000));
    const std::string data = (c.headLost ? next : head).connection(0).data;
    EXPECT_TRUE(data == c.content.substr(c.position)) << c.position;
    if (!c.headLost) continue;
    EXPECT_EQ(next.allCodes(), (Codes{kNew, kFile, kBegin, kFile, kCommit}));
    EXPECT_HAS(err.str(), ": Unable to connect or lost connection to host2.\n");
  }
}

TEST_F(UploadManagerTest, RefusedFileKeepsTheConnection) {
  FakeDaemon daemon(connector, "127.0.0.2");
  FakeDaemon::Script script;
  script.fileStatus = 4;
  script.fileText = "no room on " + daemon.hostId();
  daemon.setScript(script);
  EXPECT_FALSE(manager({&daemon})->uploadBatch({{file("a", "1"), "/d/a"}, {file("b", "2"), "/d/b"}}));
  EXPECT_EQ(daemon.allCodes(), (Codes{kNew, kBegin, kFile, kFile, kCommit}));
  EXPECT_EQ(err.str(), "host2: no room on host2\nhost2: no room on host2\n");
}

// A stalled head is aborted on a new connection at the time limit, not taken for lost.
TEST_F(UploadManagerTest, TimeLimitEndsWaitsOnAStalledHead) {
  for (const bool inData : {true, false}) {
    FakeDaemon head(connector, "127.0.0.2"), next(connector, "127.0.0.3");
    FakeDaemon::Script script;
    script.stallAfterDataBytes = inData ? 100000 : -1;
    script.answerCommit = inData;
    head.setScriptFor(0, script);
    err.str("");
    auto m = manager({&head, &next}, false, 2);
    EXPECT_FALSE(m->upload(file("f", inData ? TempDir::pattern(16 << 20) : "x"), "/d/f"));
    ASSERT_TRUE(head.waitForClosedConnections(1, 10000));
    const Codes stalled = inData ? Codes{kNew, kBegin, kFile, kNew, kAbort}
                                 : Codes{kNew, kBegin, kFile, kCommit, kNew, kAbort};
    EXPECT_EQ(head.allCodes(), stalled);
    EXPECT_EQ(next.connectionCount(), 0);
    EXPECT_EQ(err.str(), "\nAborting upload due to timeout...\n");
  }
}

TEST_F(UploadManagerTest, FileShrinkingWhileSentEndsTheRun) {
  FakeDaemon daemon(connector, "127.0.0.2");
  const std::string path = file("f", TempDir::pattern(1000000));
  daemon.setOnMessage([&](int code) {
    if (code == kFile) std::filesystem::resize_file(path, 100000);
  });
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { manager({&daemon})->upload(path, "/d/f"); }),
            "Error reading file: " + path);
  ASSERT_TRUE(daemon.waitForClosedConnections(1, 5000));
  EXPECT_EQ(daemon.allCodes(), (Codes{kNew, kBegin, kFile}));  // nothing committed
}

// The rest of the tree still goes, and the run fails.
TEST_F(UploadManagerTest, UnreadableEntriesAreReportedAndSkipped) {
  struct : FileSystem {
    std::string badEntry;
    bool stat(const std::string& path, FileAttributes& attrs, SymLinkMode mode) override {
      if (path != badEntry) return FileSystem::stat(path, attrs, mode);
      errno = EACCES;
      return false;
    }
  } fs;
  for (const char* name : {"a", "c", "d", "sub/b"}) file(std::string("tree/") + name, name);
  fs.badEntry = dir.file("tree/c");
  FakeDaemon daemon(connector, "127.0.0.2");
  auto m = manager({&daemon});
  m->setFileSystem(&fs);
  EXPECT_FALSE(m->upload(dir.file("tree"), "/dst"));
  ASSERT_TRUE(daemon.waitForClosedConnections(1, 5000));
  EXPECT_EQ(daemon.connection(0).data, "adsub/b");
  EXPECT_EQ(err.str(), "Error while reading " + fs.badEntry + ": " + System::errorText(EACCES) + "\n");
}

TEST_F(UploadManagerTest, VerboseDotsPerMillionBytes) {
  FakeDaemon daemon(connector, "127.0.0.2");
  EXPECT_TRUE(manager({&daemon}, true)->upload(file("f", TempDir::pattern(2500000)), "/d/f"));
  EXPECT_EQ(out.str(), "..success\nCommitting upload\n");
  out.str("");  // the commit is announced even when nothing went out
  std::filesystem::create_symlink("f", dir.file("link"));
  EXPECT_FALSE(manager({&daemon}, true)->upload(dir.file("link"), "/d/l"));
  EXPECT_EQ(out.str(), "Committing upload\n");
}

TEST_F(UploadManagerTest, NoReachableHostEndsTheRun) {
  auto m = manager({}, false, -1, {{"127.0.0.9", "host9"}});  // nothing answers there
  EXPECT_EQ(thrownMessage<NoNodesException>([&] { m->upload(file("f", "x"), "/d/f"); }),
            "No good hosts left");
  EXPECT_EQ(err.str(), TCPSocket::getHostName() + ": Unable to connect or lost connection to host9.\n");
}
