// The client's upload engine against scripted fake daemons over socket
// pairs: the bytes it sends, how it handles each begin and file status, lost
// and stalled heads, signals, the time limit and files changing underneath.
#include "hopper/UploadManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
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
  static std::string hello() { return WireBytes().i32(kNew).i32(5).str(getVersionString()); }

  // The fakes are reached over local socket pairs, not the network.
  PairConnector connector;
  TempDir dir;
  std::ostringstream out, err;
};

}  // namespace

TEST_F(UploadManagerTest, WireBytesOfFilesAndTree) {
  FakeDaemon daemon(connector, "127.0.0.2");
  const std::string a = file("a.txt", "alpha", 0640);
  file("tree/x", "x", 0600);
  file("tree/sub/y", "yy", 0755);
  std::filesystem::create_symlink("x", dir.file("tree/link"));
  ASSERT_EQ(mkfifo(dir.file("tree/pipe").c_str(), 0644), 0);
  EXPECT_FALSE(manager({&daemon})->uploadBatch({{a, "/dst/a.txt"}, {dir.file("tree"), "/dst"}}));

  // Only the client's bytes: the fake records what it read.
  const std::string expected =
      WireBytes().raw(hello()).i32(kBegin).i32(1).str(daemon.hostId()).flag(true)
          .raw(announce(5, "a.txt", "/dst/a.txt", 0640)).raw("alpha")
          .raw(announce(2, "y", "/dst/tree/sub/y", 0755)).raw("yy")
          .raw(announce(1, "x", "/dst/tree/x", 0600)).raw("x").i32(kCommit);
  ASSERT_TRUE(daemon.waitForClosedConnections(1, 5000));
  EXPECT_EQ(daemon.connection(0).received, expected);
  EXPECT_EQ(err.str(), "Skipping " + dir.file("tree/link") + " because it is a symlink\n" +
                           "Skipping " + dir.file("tree/pipe") + " because it is a named pipe\n");

  // The batch result is that of the last entry alone.
  EXPECT_TRUE(manager({&daemon})->uploadBatch({{dir.file("tree/link"), "/d"}, {a, "/d"}}));
  EXPECT_FALSE(manager({&daemon})->uploadBatch({{a, "/d"}, {dir.file("tree/link"), "/d"}}));
  EXPECT_THROW(manager({&daemon})->upload(a, "tmp/x"), std::runtime_error);
  EXPECT_EQ(daemon.connectionCount(), 3);  // the relative target never connected
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
  partial.setScriptFor(1, script);
  script.beginText = "trouble near " + busy.hostId();
  partial.setScriptFor(0, script);
  const IPtoNameMap others = {{"127.0.0.5:1", "host5"}, {"127.0.0.6:1", "host6"}};
  auto first = manager({&busy, &odd, &partial}, false, -1, others);
  first->beginUpload();
  EXPECT_EQ(first->nodeSet(), NodeSet{partial.hostId()});
  const std::string lists = "host6: Server busy\n" + TCPSocket::getHostName() +
                            ": Unable to connect or lost connection to host5.\n";
  EXPECT_EQ(err.str(), "host2: Server busy\n" + lists +
                           "Protocol error while communicating with host4: trouble near host2\n");
  // The whole set goes out in order; the flag is true when agents stay up.
  EXPECT_EQ(partial.connection(0).received, hello() + WireBytes().i32(kBegin).i32(3)
                                                .str(partial.hostId()).str("127.0.0.5:1")
                                                .str("127.0.0.6:1").flag(true).bytes());
  err.str("");
  manager({&partial}, false, -1, others)->beginUpload();
  EXPECT_EQ(err.str(), lists);  // no protocol error line without a text
}

// Wherever the daemon's position falls, the data continues from it: at or
// below what went out before the head was lost (the gap goes again, then the
// rest), or beyond what this client sent (a file the daemons kept from an
// earlier run). 24 MiB is far more than the socket buffers hold, so that
// head is lost while most of the file is still unsent.
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
    EXPECT_EQ(data.size(), c.content.size() - c.position) << c.position;
    EXPECT_TRUE(data == c.content.substr(c.position)) << c.position;
    if (!c.headLost) continue;
    EXPECT_EQ(head.connection(0).data, c.content.substr(0, 100000));
    EXPECT_EQ(next.allCodes(), (std::vector<int>{kNew, kFile, kBegin, kFile, kCommit}));
    EXPECT_PRED_FORMAT2(testing::IsSubstring, ": Unable to connect or lost connection to host2.\n",
                        err.str());
  }
}

// A daemon that dies part way through its reply to a file's data, in the
// length or in the text, is a lost host: the partial reply is neither
// padded into a file error nor read as success, and the file goes to the
// next host.
TEST_F(UploadManagerTest, ReplyCutShortIsALostConnection) {
  const std::string content = TempDir::pattern(1000);
  const std::string path = file("f", content);
  for (int cutAfter : {2, 8}) {
    FakeDaemon head(connector, "127.0.0.2"), next(connector, "127.0.0.3");
    FakeDaemon::Script script;
    script.fileReply = "disk full on host2";
    script.cutReplyTo = FakeDaemon::kDataReceived;
    script.cutReplyBytes = cutAfter;
    head.setScriptFor(0, script);
    err.str("");
    EXPECT_TRUE(manager({&head, &next})->upload(path, "/d/f")) << cutAfter;
    ASSERT_TRUE(next.waitForClosedConnections(1, 5000));
    EXPECT_EQ(next.connection(0).data, content) << cutAfter;
    EXPECT_EQ(err.str().find("disk"), std::string::npos) << err.str();
    EXPECT_PRED_FORMAT2(testing::IsSubstring, ": Unable to connect or lost connection to host2.\n",
                        err.str());
  }
}

TEST_F(UploadManagerTest, RefusedFileKeepsTheConnection) {
  FakeDaemon daemon(connector, "127.0.0.2");
  FakeDaemon::Script script;
  script.fileStatus = 4;
  script.fileText = "no room on " + daemon.hostId();
  daemon.setScript(script);
  EXPECT_FALSE(manager({&daemon})->uploadBatch(
      {{file("a", "1"), "/d/a"}, {file("b", "2"), "/d/b"}}));
  EXPECT_EQ(daemon.connectionCount(), 1);
  EXPECT_EQ(daemon.allCodes(), (std::vector<int>{kNew, kBegin, kFile, kFile, kCommit}));
  EXPECT_EQ(err.str(), "host2: no room on host2\nhost2: no room on host2\n");
}

// The time limit ends every wait on the head: the run aborts with the
// timeout ending, on a new connection when the old one broke off, and the
// head is not taken for lost (the next host is never tried).
TEST_F(UploadManagerTest, TimeLimitEndsWaitsOnAStalledHead) {
  struct Case {
    int timeout;
    long stallAfterDataBytes;
    bool answerCommit;
    std::string content;
    std::vector<int> codes;
  };
  const Case cases[] = {
      {0, -1, true, "x", {}},  // passed before the head was even reached
      {2, 100000, true, TempDir::pattern(16 << 20), {kNew, kBegin, kFile, kNew, kAbort}},
      {2, -1, false, "x", {kNew, kBegin, kFile, kCommit, kNew, kAbort}},
  };
  for (const Case& c : cases) {
    FakeDaemon head(connector, "127.0.0.2"), next(connector, "127.0.0.3");
    FakeDaemon::Script script;
    script.stallAfterDataBytes = c.stallAfterDataBytes;
    script.answerCommit = c.answerCommit;
    head.setScriptFor(0, script);
    err.str("");
    auto m = manager({&head, &next}, false, c.timeout);
    EXPECT_FALSE(m->upload(file("f", c.content), "/d/f"));
    if (!c.codes.empty()) { ASSERT_TRUE(head.waitForClosedConnections(1, 10000)); }  // the abort
    EXPECT_EQ(head.allCodes(), c.codes) << c.timeout;
    EXPECT_EQ(next.connectionCount(), 0);
    EXPECT_EQ(err.str(), "\nAborting upload due to timeout...\n");
    EXPECT_EQ(thrownMessage<std::runtime_error>([&] { m->abortCheck(); }), "Time limited exceeded");
  }
}

// A file that shrinks while it is sent ends the run with a read error, after
// at least the whole blocks it still had, as when every block was read here.
TEST_F(UploadManagerTest, FileShrinkingWhileSentEndsTheRun) {
  FakeDaemon daemon(connector, "127.0.0.2");
  const std::string content = TempDir::pattern(1000000);
  const std::string path = file("f", content);
  daemon.setOnMessage([&](int code) {
    if (code == kFile) std::filesystem::resize_file(path, 100000);
  });
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { manager({&daemon})->upload(path, "/d/f"); }),
            "Error reading file: " + path);
  ASSERT_TRUE(daemon.waitForClosedConnections(1, 5000));
  const std::string data = daemon.connection(0).data;
  EXPECT_GE(data.size(), 3u * UploadManager::kBlockSize);
  EXPECT_TRUE(data == content.substr(0, data.size()));
}

// Sources that cannot be read: an entry whose attributes or a directory
// whose names cannot be read is reported and skipped while the rest of the
// tree still goes (and the run fails); a file whose bytes cannot be read
// ends the run before anything is committed.
TEST_F(UploadManagerTest, UnreadableSourcesAreReported) {
  struct : FileSystem {
    std::string badEntry, badDir, badFile;
    int badFd = -1;
    bool stat(const std::string& path, FileAttributes& attrs, SymLinkMode mode) override {
      if (path != badEntry) return FileSystem::stat(path, attrs, mode);
      errno = EACCES;
      return false;
    }
    bool readDirectory(const std::string& path, std::vector<std::string>& names) override {
      if (path != badDir) return FileSystem::readDirectory(path, names);
      errno = EIO;
      return false;
    }
    System::FileDescriptor openForRead(const std::string& path) override {
      System::FileDescriptor fd = FileSystem::openForRead(path);
      if (path == badFile) badFd = fd.get();
      return fd;
    }
    ssize_t preadFull(int fd, char* buf, size_t n, int64_t offset) override {
      if (fd != badFd) return FileSystem::preadFull(fd, buf, n, offset);
      errno = EIO;
      return -1;
    }
  } fs;
  for (const char* name : {"a", "c", "d", "sub/b"}) file(std::string("tree/") + name, name);
  fs.badEntry = dir.file("tree/c");
  fs.badDir = dir.file("tree/sub");
  FakeDaemon daemon(connector, "127.0.0.2");
  auto m = manager({&daemon});
  m->setFileSystem(&fs);
  EXPECT_FALSE(m->upload(dir.file("tree"), "/dst"));
  ASSERT_TRUE(daemon.waitForClosedConnections(1, 5000));
  EXPECT_EQ(daemon.connection(0).data, "ad");
  EXPECT_EQ(daemon.allCodes(), (std::vector<int>{kNew, kBegin, kFile, kFile, kCommit}));
  EXPECT_EQ(err.str(), "Error while reading " + fs.badEntry + ": " + System::errorText(EACCES) +
                           "\nError while reading directory " + fs.badDir + ": " +
                           System::errorText(EIO) + "\n");

  fs.badFile = dir.file("tree/a");
  m = manager({&daemon});
  m->setFileSystem(&fs);
  EXPECT_EQ(thrownMessage<std::runtime_error>([&] { m->upload(fs.badFile, "/dst/a"); }),
            "Error reading file: " + fs.badFile);
  m.reset();
  ASSERT_TRUE(daemon.waitForClosedConnections(2, 5000));
  EXPECT_EQ(daemon.connection(1).data, "");
  EXPECT_EQ(daemon.connection(1).received.find(WireBytes().i32(kCommit).bytes()), std::string::npos);
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
