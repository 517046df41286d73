#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>
#include <thread>

#include "hopperd/Connection.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {

const std::string kSession = "0123456789abcdef0123456789abcdef";

// A daemon's settings for dir/root, journaling in dir/state.
DaemonConfig configIn(const TempDir& dir) {
  DaemonConfig config;
  config.mRoot = dir.file("root");
  config.mStateDir = dir.file("state");
  fs::create_directories(config.mRoot);
  fs::create_directories(config.mStateDir);
  return config;
}

// A session of this host alone.
struct LocalSession {
  explicit LocalSession(const TempDir& dir, FileSystem* files = FileSystem::posix(),
                        const std::string& allowedPaths = "")
      : root(dir.file("root")), config(configIn(dir)) {
    config.mFileSystem = files;
    config.mAllowedPaths = TargetPath::parsePrefixes(allowedPaths);
    session = std::make_unique<Session>(kSession, std::vector<std::string>{"self"}, "127.0.0.1",
                                        config);
    reconnect();
  }
  void reconnect(bool stopAgents = false) {  // what a client's begin after a reconnect does
    BeginResult ignored;
    session->begin({"self"}, stopAgents, ignored, [] { return false; });
  }
  // Announces a file: the position to send from, or -1 with the refusal.
  int64_t open(const FileInfo& info, std::string& refusal) {
    int64_t start = -1;
    return session->openFile(info, start, refusal) ? start : -1;
  }
  // Sends a whole file: its refusal or its reply.
  std::string send(const std::string& remote, const std::string& base, const std::string& bytes) {
    std::string refusal;
    if (open(FileInfo{int64_t(bytes.size()), base, remote, 0644}, refusal) < 0) return refusal;
    session->fileData(bytes.data(), bytes.size());
    return session->closeFile();
  }
  const std::string root;
  DaemonConfig config;
  std::unique_ptr<Session> session;
};

// Fails one kind of call on the files whose names hold "victim".
class FaultyFileSystem : public FileSystem {
 public:
  enum Fault { NONE, DISK_FULL, SHORT_WRITE, FLIPPED_BYTE, FAILED_RENAME, FAILED_FLUSH };
  Fault fault = NONE;

  bool writeAll(int fd, const char* data, size_t n) override {
    const std::string path = fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
    if (n == 0 || path.find("victim") == std::string::npos) return FileSystem::writeAll(fd, data, n);
    std::string bytes(data, n);
    if (fault == FLIPPED_BYTE) bytes[n / 2] ^= 1;
    if (fault == SHORT_WRITE) FileSystem::writeAll(fd, data, n / 2);
    if (fault == DISK_FULL || fault == SHORT_WRITE) return fail(ENOSPC);
    return FileSystem::writeAll(fd, bytes.data(), n);
  }
  bool syncFileSystem(int fd) override {
    return fault == FAILED_FLUSH ? fail(EIO) : FileSystem::syncFileSystem(fd);
  }
  bool renameAt(int fromDirFd, const std::string& from, int toDirFd,
                const std::string& to) override {
    if (fault == FAILED_RENAME && to.find("victim") != std::string::npos) return fail(EXDEV);
    return FileSystem::renameAt(fromDirFd, from, toDirFd, to);
  }

 private:
  static bool fail(int error) {
    errno = error;
    return false;
  }
};

}  // namespace

// Every refusal comes before anything is made; a link is never followed,
// and a link to a directory is no directory.
TEST(StagingTest, RefusesPathsOutsideTheRootOrTheAllowedPrefixes) {
  TempDir dir;
  LocalSession local(dir, FileSystem::posix(), "/opt/, /srv/data");
  const std::string outside = dir.file("outside"), longest(255, 'n'), tooLong(256, 'n');
  fs::create_directories(local.root + "/opt/existing");
  fs::create_directories(outside);
  TempDir::write(local.root + "/opt/plain", "x");
  fs::create_directory_symlink(outside, local.root + "/opt/escape");
  fs::create_symlink(outside + "/f", local.root + "/opt/link");
  const struct {
    std::string remote, base, refusal;  // refusal: part of the reply; "" accepted
  } cases[] = {
      {"/opt/../etc/passwd", "f", "must be absolute and free of \"..\""},
      {"/optional/x", "f", "lies outside the allowed paths"},  // a prefix is whole components
      {"/opt/escape/sub/f", "f", "/opt/escape: " + System::errorText(ELOOP)},
      {"/opt/link", "f", "/opt/link: " + System::errorText(ELOOP)},
      {"/opt/plain/sub/x", "f", "/opt/plain/sub/x: /opt/plain: Not a directory"},
      {"/opt/", "existing", "/opt/existing: Is a directory"},
      {"/opt/fits/" + longest, "f", ""},
      {"/opt/new/" + tooLong + "/f", "f", "too long"},
      {"/opt/new/", tooLong, "too long"},
      {"//srv/./data//x", "f", ""},
  };
  for (const auto& c : cases) {
    const std::string reply = local.send(c.remote, c.base, "new");
    EXPECT_TRUE(c.refusal.empty() ? reply.empty() : reply.find(c.refusal) != std::string::npos)
        << c.remote << ": " << reply;
  }
  EXPECT_EQ(local.session->commit(), "");
  EXPECT_EQ(TempDir::read(local.root + "/srv/data/x"), "new");
  EXPECT_TRUE(fs::is_empty(outside));
  EXPECT_FALSE(fs::exists(local.root + "/opt/new"));
}

// A directory the abort removed is made afresh for the next file.
TEST(StagingTest, AFileLandsInsideADirectoryAndCommitWalksAfresh) {
  TempDir dir;
  LocalSession local(dir);
  fs::create_directories(local.root + "/existing");
  TempDir::write(local.root + "/plain", "old");
  EXPECT_EQ(local.send("/new/sub/", "f", "1"), "");  // a trailing '/' names a directory
  local.session->abort();
  EXPECT_FALSE(fs::exists(local.root + "/new"));
  local.reconnect();
  EXPECT_EQ(local.send("/new/sub/", "g", "4"), "");
  EXPECT_EQ(local.send("/existing", "f", "2"), "");
  EXPECT_EQ(local.send("/plain", "f", "3"), "");
  EXPECT_EQ(local.send("/race/sub/", "f", "5"), "");
  // A directory swapped for a link to elsewhere before commit.
  fs::rename(local.root + "/race/sub", local.root + "/race/moved");
  fs::create_directories(dir.file("outside"));
  fs::create_directory_symlink(dir.file("outside"), local.root + "/race/sub");
  EXPECT_EQ(local.session->commit(), "self: /race/sub/f: /race/sub: " + System::errorText(ELOOP));
  EXPECT_EQ(TempDir::read(local.root + "/existing/f") + TempDir::read(local.root + "/plain") +
                TempDir::read(local.root + "/new/sub/g"), "234");
  EXPECT_TRUE(fs::is_empty(dir.file("outside")));
  EXPECT_FALSE(fs::exists(local.root + "/race/moved/f"));
}

TEST(StagingTest, AgentCommandsRunAroundTheRenamesWhenAsked) {
  TempDir dir;
  LocalSession local(dir);
  const std::string target = local.root + "/f", log = dir.file("agents");
  local.config.mStopAgentsCommand = "test -e " + target + " || echo stop >> " + log;
  local.config.mStartAgentsCommand = "test -e " + target + " && echo start >> " + log + "; exit 3";
  local.reconnect(true);
  EXPECT_EQ(local.send("/f", "f", "x"), "");
  EXPECT_EQ(local.session->commit(),
            "self: Command \"" + local.config.mStartAgentsCommand + "\" failed: exit status 3");
  EXPECT_EQ(TempDir::read(log), "stop\nstart\n");
}

// A file size limit stands in for a full disk under the journal.
TEST(StagingTest, ADirectoryTheJournalHasNoRoomForIsNotMade) {
  TempDir dir;
  LocalSession local(dir);
  EXPECT_EQ(local.send("/first", "first", "1"), "");
  // Room for one more directory record ("D /deep\n") only.
  const std::string journal = dir.file("state/" + kSession + ".journal");
  struct rlimit saved, small;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  small = saved;
  small.rlim_cur = fs::file_size(journal) + 8;
  const sighandler_t previous = ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const std::string reply = local.send("/deep/er/", "f", "x");
  ::setrlimit(RLIMIT_FSIZE, &saved);
  ::signal(SIGXFSZ, previous);
  EXPECT_EQ(reply, "self: /deep/er/f: Unable to write journal " + journal + ": " +
                       System::errorText(EFBIG));
  EXPECT_FALSE(fs::exists(local.root + "/deep"));
  EXPECT_EQ(local.session->commit(), "");
  EXPECT_EQ(TempDir::read(local.root + "/first"), "1");
}

TEST(StagingTest, AResumedFileContinuesOnlyWhenAnnouncedExactlyAsBefore) {
  TempDir dir;
  LocalSession local(dir);
  std::string refusal;
  const FileInfo file{8, "f", "/r/", 0640};
  // Each differs in one item; the last two name the same target.
  const FileInfo others[] = {{9, "f", "/r/", 0640}, {8, "f", "/r/", 0600},
                             {8, "g", "/r/f", 0640}, {8, "f", "/r//", 0640}};
  for (const FileInfo& other : others) {
    ASSERT_EQ(local.open(file, refusal), 0);  // no reconnect: afresh
    local.session->fileData("ab", 2);
    local.reconnect();
    EXPECT_EQ(local.open(other, refusal), 0) << other.mSize << other.mBaseName << other.mMode;
  }
  ASSERT_EQ(local.open(file, refusal), 0);
  local.session->fileData("0123", 4);
  EXPECT_EQ(fs::status(stagedPath(local.root, "f")).permissions(), fs::perms(0600));
  local.reconnect();
  ASSERT_EQ(local.open(file, refusal), 4);
  local.session->fileData("4567", 4);
  EXPECT_EQ(local.session->closeFile(), "");
  EXPECT_EQ(local.session->commit(), "");
  EXPECT_EQ(TempDir::read(local.root + "/r/f"), "01234567");
  EXPECT_EQ(fs::status(local.root + "/r/f").permissions(), fs::perms(0640));
}

// Each fault ends with the file's error in its reply or the commit's, the
// old target in place, the other files committed (unless none could be
// flushed) and nothing staged for it left.
TEST(StagingTest, DiskFaultsFailOnlyTheirFileAndLeaveNothingHalfDone) {
  using Fault = FaultyFileSystem::Fault;
  const std::string full = "self: Error writing /d/victim: " + System::errorText(ENOSPC);
  const struct {
    Fault fault;
    std::string reply, commit, landed;  // landed: the other files' bytes
  } cases[] = {
      {Fault::DISK_FULL, full, "", "ba"},
      {Fault::SHORT_WRITE, full, "", "ba"},
      {Fault::FLIPPED_BYTE,
       "self: /d/victim: the staged copy differs from the bytes the head received "
       "(checksum mismatch)", "", "ba"},
      {Fault::FAILED_RENAME, "",
       "self: Unable to move into place /d/victim: " + System::errorText(EXDEV), "ba"},
      {Fault::FAILED_FLUSH, "",
       "self: Error flushing staged files: " + System::errorText(EIO), ""},
  };
  for (const auto& c : cases) {
    TempDir dir;
    FaultyFileSystem files;
    LocalSession local(dir, &files);
    TempDir::write(local.root + "/d/victim", "old");
    EXPECT_EQ(local.send("/d/", "before", "b"), "") << c.fault;
    files.fault = c.fault;
    EXPECT_EQ(local.send("/d/", "victim", TempDir::pattern(100000)), c.reply) << c.fault;
    // A file that failed gives its staged copy up at once.
    EXPECT_EQ(stagedBytes(local.root, "victim"), c.reply.empty() ? 100000 : -1) << c.fault;
    EXPECT_EQ(local.send("/d/", "after", "a"), "") << c.fault;
    EXPECT_EQ(local.session->commit(), c.commit) << c.fault;
    EXPECT_EQ(TempDir::read(local.root + "/d/victim"), "old") << c.fault;
    EXPECT_EQ(TempDir::read(local.root + "/d/before") + TempDir::read(local.root + "/d/after"),
              c.landed) << c.fault;
    EXPECT_TRUE(filesUnder(local.root, true).empty()) << c.fault;
  }
}

// A relayed file whose staged copy fails the head's checksum is reported
// back on the link and never committed.
TEST(ConnectionTest, RelayedBytesFailingTheirChecksumAreNeverCommitted) {
  TempDir dir;
  const DaemonConfig config = configIn(dir);
  SessionTable table(config);
  auto ends = TCPSocket::pair();
  TCPStream link(std::make_unique<TCPSocket>(ends.first.release()));
  link.socket().setReadTimeout(10000);
  auto connection =
      std::make_shared<Connection>(std::make_unique<TCPSocket>(ends.second.release()), table, 5000);
  std::thread served([connection] { connection->run(); });
  const std::string data = "second";
  Protocol::writeRelayIdentity(link, RelayIdentity{"127.0.0.9", "upload1", "up"});
  Protocol::writeBegin(link, {"self"}, false);
  Protocol::writeFilePart(link, FilePart{FileInfo{6, "f", "/b", 0644}, 2, 0, 6});
  Protocol::writeBlock(link, data.data(), data.size());
  Protocol::writeFileCheck(link, FileCheck{2, 6, 12345});
  Protocol::writeCommit(link);
  link.flush();
  EXPECT_EQ(Protocol::readBeginReply(link).mStatus, BEGIN_OK);
  const RelayMessage errors = Protocol::readRelayReply(link, "self");
  EXPECT_EQ(errors.mText, "self: /b: the staged copy differs from the bytes the head received "
                          "(checksum mismatch)");
  EXPECT_EQ(Protocol::readRelayReply(link, "self").mTag, RELAY_COMMITTED);
  link.close();
  served.join();
  EXPECT_FALSE(fs::exists(config.mRoot + "/b"));
  EXPECT_TRUE(filesUnder(config.mRoot, true).empty());
}
