#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>

#include "hopperd/Journal.h"
#include "hopperd/Session.h"
#include "hopperd/StagedFile.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {

const std::string kSession = "0123456789abcdef0123456789abcdef";

// A session of this host alone under dir/root, journaling in dir/state.
struct LocalSession {
  explicit LocalSession(const TempDir& dir, FileSystem* files = FileSystem::posix())
      : root(dir.file("root")) {
    fs::create_directories(root);
    fs::create_directories(dir.file("state"));
    config.mRoot = root;
    config.mStateDir = dir.file("state");
    config.mFileSystem = files;
    session = std::make_unique<Session>(kSession, std::vector<std::string>{"self"}, "127.0.0.1",
                                        config);
    reconnect();
  }
  void reconnect() {  // what a client's begin after a reconnect does
    BeginResult ignored;
    session->begin({"self"}, false, ignored, [] { return false; });
  }
  // Announces a file; the position to send from, or -1.
  int64_t open(const std::string& remote, const std::string& base, int64_t size, int mode = 0644) {
    int64_t start = -1;
    std::string refusal;
    return session->openFile(FileInfo{size, base, remote, mode}, start, refusal) ? start : -1;
  }
  // Sends a whole file; its refusal or its reply.
  std::string send(const std::string& remote, const std::string& base, const std::string& bytes) {
    int64_t start = -1;
    std::string refusal;
    if (!session->openFile(FileInfo{int64_t(bytes.size()), base, remote, 0644}, start, refusal)) {
      return refusal;
    }
    session->fileData(bytes.data(), bytes.size());
    return session->closeFile();
  }
  const std::string root;
  DaemonConfig config;
  std::unique_ptr<Session> session;
};

// A file system that fails one kind of call on the files whose names hold
// "victim".
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
  EXPECT_LE(StagedFile::nameFor(shared, std::string(64, 'f'), 999).size(), 255u);
}

// What changes under a staged copy before commit fails its file alone,
// leaving the target as it was: the copy lost, cut short, or its directory
// swapped for a link to elsewhere (the commit walks to it afresh).
TEST(StagingTest, AStagedCopyLostCutShortOrMovedFailsItsFileAlone) {
  TempDir dir;
  LocalSession local(dir);
  for (const char* name : {"lost", "cut", "fine"}) {
    TempDir::write(local.root + "/d/" + name, "old");
    EXPECT_EQ(local.send(std::string("/d/") + name, name, "new!"), "");
  }
  EXPECT_EQ(local.send("/race/sub/", "f", "hello"), "");
  ASSERT_TRUE(fs::remove(stagedPath(local.root, "lost")));
  fs::resize_file(stagedPath(local.root, "cut"), 2);
  fs::rename(local.root + "/race/sub", local.root + "/race/moved");
  fs::create_directories(dir.file("outside"));
  fs::create_directory_symlink(dir.file("outside"), local.root + "/race/sub");
  EXPECT_EQ(local.session->commit(),
            "self: /d/lost: the staged copy is lost: " + System::errorText(ENOENT) +
                "\nself: /d/cut: the staged copy holds 2 of 4 bytes"
                "\nself: /race/sub/f: /race/sub: " + System::errorText(ELOOP));
  EXPECT_EQ(TempDir::read(local.root + "/d/lost") + TempDir::read(local.root + "/d/cut"), "oldold");
  EXPECT_EQ(TempDir::read(local.root + "/d/fine"), "new!");
  EXPECT_TRUE(filesUnder(local.root + "/d", true).empty());
  EXPECT_TRUE(fs::is_empty(dir.file("outside")));
  EXPECT_FALSE(fs::exists(local.root + "/race/moved/f"));
}

// A file size limit stands in for a full disk under the journal: a
// directory that cannot be journaled is not made, and its file is refused.
TEST(StagingTest, ADirectoryTheJournalHasNoRoomForIsNotMade) {
  TempDir dir;
  LocalSession local(dir);
  EXPECT_EQ(local.send("/first", "first", "1"), "");
  // The journal has room for one more directory record ("D /deep\n") only.
  struct rlimit saved, small;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  small = saved;
  const std::string journal = dir.file("state/" + kSession + ".journal");
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
  // Each differs from ("/r/", "f", 8, 0640) in one item; the last two name the same target.
  const FileInfo others[] = {{9, "f", "/r/", 0640}, {8, "f", "/r/", 0600},
                             {8, "g", "/r/f", 0640}, {8, "f", "/r//", 0640}};
  for (const FileInfo& other : others) {
    ASSERT_EQ(local.open("/r/", "f", 8, 0640), 0);  // no reconnect: afresh
    local.session->fileData("ab", 2);
    local.reconnect();
    EXPECT_EQ(local.open(other.mRemotePath, other.mBaseName, other.mSize, other.mMode), 0);
  }
  ASSERT_EQ(local.open("/r/", "f", 8, 0640), 0);
  local.session->fileData("0123", 4);
  // Nobody reads it before commit.
  EXPECT_EQ(fs::status(stagedPath(local.root, "f")).permissions(), fs::perms(0600));
  local.reconnect();
  ASSERT_EQ(local.open("/r/", "f", 8, 0640), 4);
  local.session->fileData("4567", 4);
  EXPECT_EQ(local.session->closeFile(), "");
  EXPECT_EQ(local.session->commit(), "");
  EXPECT_EQ(TempDir::read(local.root + "/r/f"), "01234567");
  EXPECT_EQ(fs::status(local.root + "/r/f").permissions(), fs::perms(0640));
}

TEST(StagingTest, CleanUpRemovesWhatAnUnfinishedSessionLeftAndNothingElse) {
  TempDir dir;
  const std::string root = dir.file("root"), state = dir.file("state"), outside = dir.file("out");
  {
    LocalSession crashed(dir);
    EXPECT_EQ(crashed.send("/a/b/", "we\nird", "abc"), "");
    EXPECT_EQ(crashed.send("/kept/", "f", "x"), "");
    TempDir::write(root + "/kept/other", "y");
    // Staged by another upload, beside one of this session's.
    TempDir::write(root + "/kept/" + StagedFile::nameFor("f", "s3", 0), "z");
  }  // the daemon stops without commit or abort
  {
    // Records that no session could have made are left alone.
    Journal other(state, "s2", root);
    std::string error;
    const std::string stagedName = StagedFile::nameFor("f", "s2", 0);
    TempDir::write(root + "/victim", "keep");
    TempDir::write(outside + "/" + stagedName, "keep");
    fs::create_directory_symlink(outside, root + "/link");
    ASSERT_TRUE(other.recordStagedFile("/victim", error)) << error;
    ASSERT_TRUE(other.recordStagedFile("/link/" + stagedName, error));
    ASSERT_TRUE(other.recordDirectory("/link", error));
    ASSERT_TRUE(other.recordDirectory("/kept/other", error));
  }
  // A record cut short by the crash may name a prefix of the real path.
  const std::string journal = state + "/s2.journal";
  TempDir::write(journal, TempDir::read(journal) + "D /a\nD /kep");
  fs::create_directory(root + "/kep");
  EXPECT_EQ(Journal::cleanUp(state), 2);
  EXPECT_FALSE(fs::exists(root + "/a"));  // emptied (the odd name found), removed deepest first
  EXPECT_TRUE(fs::exists(root + "/kept/other")) << "a directory in use stays";
  EXPECT_TRUE(fs::exists(root + "/kep"));
  EXPECT_EQ(filesUnder(root, true),
            std::vector<std::string>{root + "/kept/" + StagedFile::nameFor("f", "s3", 0)});
  EXPECT_EQ(TempDir::read(root + "/victim"), "keep");
  EXPECT_EQ(filesUnder(outside, true).size(), 1u);
  EXPECT_TRUE(fs::is_empty(state));
}

// Each fault of the disk ends with the file's error in its reply or the
// commit's, the old target in place, the other files committed (unless no
// file could be flushed) and nothing staged or made for it left.
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
