#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>

#include "hopperd/Session.h"
#include "hopperd/StagedFile.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {

const std::string kSession = "0123456789abcdef0123456789abcdef";

// A session of this host alone under dir/root, journaling in dir/state.
struct LocalSession {
  explicit LocalSession(const TempDir& dir, FileSystem* files = FileSystem::posix(),
                        const std::string& allowedPaths = "")
      : root(dir.file("root")) {
    fs::create_directories(root);
    fs::create_directories(dir.file("state"));
    config.mRoot = root;
    config.mStateDir = dir.file("state");
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
  enum Fault { NONE, DISK_FULL, SHORT_WRITE, FLIPPED_BYTE, FAILED_MKDIR, FAILED_RENAME, FAILED_FLUSH };
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
  bool makeDirectoryAt(int dirFd, const std::string& name, int mode) override {
    if (fault == FAILED_MKDIR && name.find("victim") != std::string::npos) return fail(EDQUOT);
    return FileSystem::makeDirectoryAt(dirFd, name, mode);
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

TEST(StagingTest, NamesSharingALongPrefixOrAHashKeepTheirOwnBytes) {
  TempDir dir;
  LocalSession local(dir);
  const std::string shared(235, 'n');
  EXPECT_EQ(local.send("/d/", shared + "-one", "one"), "");
  EXPECT_EQ(local.send("/d/", shared + "-two", "two!!"), "");
  // A staged name already taken by another file (as when two hashes agree).
  const std::string taken = local.root + "/d/" + StagedFile::nameFor("t", kSession, 0);
  TempDir::write(taken, "someone else's");
  EXPECT_EQ(local.send("/d/t", "t", "t1"), "");
  EXPECT_EQ(local.session->commit(), "");
  EXPECT_EQ(TempDir::read(local.root + "/d/" + shared + "-one"), "one");
  EXPECT_EQ(TempDir::read(local.root + "/d/" + shared + "-two"), "two!!");
  EXPECT_EQ(TempDir::read(local.root + "/d/t"), "t1");
  EXPECT_EQ(filesUnder(local.root, true), std::vector<std::string>{taken});
}

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
      {"relative/x", "f", "must be absolute"},
      {"/optional/x", "f", "lies outside the allowed paths"},  // a prefix is whole components
      {"/opt/escape/sub/f", "f", "/opt/escape: " + System::errorText(ELOOP)},
      {"/opt/escape/f", "f", "/opt/escape: " + System::errorText(ELOOP)},
      {"/opt/escape", "f", "/opt/escape: " + System::errorText(ELOOP)},
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
  EXPECT_EQ(local.send("/existing", "f", "2"), "");
  EXPECT_EQ(local.send("/plain", "f", "3"), "");
  EXPECT_EQ(local.send("/new/sub/", "g", "4"), "");
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
  local.reconnect(false);
  EXPECT_EQ(local.send("/f", "f", "y"), "");
  EXPECT_EQ(local.session->commit(), "");
  EXPECT_EQ(TempDir::read(log) + TempDir::read(target), "stop\nstart\ny");
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
// flushed) and nothing staged or made for it left.
TEST(StagingTest, DiskFaultsFailOnlyTheirFileAndLeaveNothingHalfDone) {
  using Fault = FaultyFileSystem::Fault;
  const std::string full = "self: Error writing /d/victim: " + System::errorText(ENOSPC);
  const struct {
    Fault fault;
    std::string remote, reply, commit, landed;  // landed: the other files' bytes
  } cases[] = {
      {Fault::DISK_FULL, "/d/", full, "", "ba"},
      {Fault::SHORT_WRITE, "/d/", full, "", "ba"},
      {Fault::FLIPPED_BYTE, "/d/",
       "self: /d/victim: the staged copy differs from the bytes the head received "
       "(checksum mismatch)", "", "ba"},
      {Fault::FAILED_MKDIR, "/e/victims/",
       "self: /e/victims/victim: Unable to create directory /e/victims: " +
           System::errorText(EDQUOT), "", "ba"},
      {Fault::FAILED_RENAME, "/d/", "",
       "self: Unable to move into place /d/victim: " + System::errorText(EXDEV), "ba"},
      {Fault::FAILED_FLUSH, "/d/", "",
       "self: Error flushing staged files: " + System::errorText(EIO), ""},
  };
  for (const auto& c : cases) {
    TempDir dir;
    FaultyFileSystem files;
    LocalSession local(dir, &files);
    TempDir::write(local.root + "/d/victim", "old");
    EXPECT_EQ(local.send("/d/", "before", "b"), "") << c.fault;
    files.fault = c.fault;
    EXPECT_EQ(local.send(c.remote, "victim", TempDir::pattern(100000)), c.reply) << c.fault;
    // A file that failed gives its staged copy up at once.
    EXPECT_EQ(stagedBytes(local.root, "victim"), c.reply.empty() ? 100000 : -1) << c.fault;
    EXPECT_EQ(local.send("/d/", "after", "a"), "") << c.fault;
    EXPECT_EQ(local.session->commit(), c.commit) << c.fault;
    EXPECT_EQ(TempDir::read(local.root + "/d/victim"), "old") << c.fault;
    EXPECT_EQ(TempDir::read(local.root + "/d/before") + TempDir::read(local.root + "/d/after"),
              c.landed) << c.fault;
    EXPECT_TRUE(filesUnder(local.root, true).empty()) << c.fault;
    EXPECT_FALSE(fs::exists(local.root + "/e")) << c.fault;
  }
}
