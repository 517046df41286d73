#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <memory>

#include "hopperd/Journal.h"
#include "hopperd/Session.h"
#include "hopperd/StagedFile.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {

const std::string kSession = "0123456789abcdef0123456789abcdef";

int modeOf(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? int(st.st_mode & 07777) : -1;
}

// The staged file of the target called name under root ("" when none).
std::string stagedPathOf(const std::string& root, const std::string& name) {
  for (const std::string& path : filesUnder(root, true)) {
    if (fs::path(path).filename().string().rfind("." + name + ".", 0) == 0) return path;
  }
  return "";
}

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
  // Sends a whole file; its reply.
  std::string send(const std::string& remote, const std::string& base, const std::string& bytes) {
    if (open(remote, base, int64_t(bytes.size())) != 0) return "refused";
    session->fileData(bytes.data(), bytes.size());
    return session->closeFile();
  }
  const std::string root;
  DaemonConfig config;
  std::unique_ptr<Session> session;
};

// A file system that fails one kind of call, on the files whose names hold
// `victim` (all calls for "").
class FaultyFileSystem : public FileSystem {
 public:
  enum Fault { NONE, DISK_FULL, SHORT_WRITE, FLIPPED_BYTE, FAILED_FLUSH, FAILED_RENAME, FAILED_MKDIR };
  Fault fault = NONE;
  std::string victim;

  bool writeAll(int fd, const char* data, size_t n) override {
    if (!hits(fd) || fault == NONE || n == 0) return FileSystem::writeAll(fd, data, n);
    if (fault == FLIPPED_BYTE) {
      std::string damaged(data, n);
      damaged[n / 2] ^= 1;
      return FileSystem::writeAll(fd, damaged.data(), n);
    }
    if (fault == SHORT_WRITE) FileSystem::writeAll(fd, data, n / 2);
    if (fault != DISK_FULL && fault != SHORT_WRITE) return FileSystem::writeAll(fd, data, n);
    errno = ENOSPC;
    return false;
  }
  bool syncFileSystem(int fd) override {
    if (fault != FAILED_FLUSH) return FileSystem::syncFileSystem(fd);
    errno = EIO;
    return false;
  }
  bool makeDirectoryAt(int dirFd, const std::string& name, int mode) override {
    if (fault != FAILED_MKDIR || name.find(victim) == std::string::npos) {
      return FileSystem::makeDirectoryAt(dirFd, name, mode);
    }
    errno = EDQUOT;
    return false;
  }
  bool renameAt(int fromDirFd, const std::string& from, int toDirFd,
                const std::string& to) override {
    if (fault != FAILED_RENAME || to.find(victim) == std::string::npos) {
      return FileSystem::renameAt(fromDirFd, from, toDirFd, to);
    }
    errno = EXDEV;
    return false;
  }

 private:
  bool hits(int fd) const {
    const std::string path = fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
    return path.find(victim) != std::string::npos;
  }
};

}  // namespace

TEST(StagingTest, StagedBytesAppearOnlyAtCommit) {
  TempDir dir;
  const std::string target = dir.file("out.bin");
  TempDir::write(target, "old");
  const TargetPath paths(dir.path(), {});
  std::string error;
  const System::FileDescriptor parent = paths.openParent("/out.bin", error);
  StagedFile staged(paths, "/out.bin", kSession);
  EXPECT_TRUE(StagedFile::isStagedName(staged.name(), kSession));
  EXPECT_FALSE(StagedFile::isStagedName(staged.name(), "abc123"));
  ASSERT_TRUE(staged.create(parent.get(), nullptr, error)) << error;
  ASSERT_TRUE(staged.append("hello ", 6, error));
  staged.close();  // a resumed file goes on where its bytes stopped
  StagedFile resumed(paths, "/out.bin", kSession);
  ASSERT_TRUE(resumed.reopen(error)) << error;
  EXPECT_EQ(resumed.size(), 6);
  ASSERT_TRUE(resumed.append("world", 5, error));
  EXPECT_EQ(TempDir::read(target), "old");
  EXPECT_EQ(modeOf(resumed.path()), 0600);
  ASSERT_TRUE(resumed.commit(11, 0751, error)) << error;
  EXPECT_EQ(TempDir::read(target), "hello world");
  EXPECT_EQ(modeOf(target), 0751);
  EXPECT_FALSE(fs::exists(resumed.path()));
}

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

TEST(StagingTest, AStagedCopyLostOrCutShortFailsItsFileAndLeavesTheTarget) {
  TempDir dir;
  LocalSession local(dir);
  for (const char* name : {"lost", "cut", "fine"}) {
    TempDir::write(local.root + "/d/" + name, "old");
    EXPECT_EQ(local.send(std::string("/d/") + name, name, "new!"), "");
  }
  ASSERT_TRUE(fs::remove(stagedPathOf(local.root, "lost")));
  fs::resize_file(stagedPathOf(local.root, "cut"), 2);
  EXPECT_EQ(local.session->commit(),
            "self: /d/lost: the staged copy is lost: " + System::errorText(ENOENT) +
                "\nself: /d/cut: the staged copy holds 2 of 4 bytes");
  EXPECT_EQ(TempDir::read(local.root + "/d/lost"), "old");
  EXPECT_EQ(TempDir::read(local.root + "/d/cut"), "old");
  EXPECT_EQ(TempDir::read(local.root + "/d/fine"), "new!");
  EXPECT_TRUE(filesUnder(local.root, true).empty());
}

TEST(StagingTest, FilesFailingForWantOfSpaceLeaveNothingBehind) {
  TempDir dir;
  LocalSession local(dir);
  // A file size limit stands in for a full disk.
  const auto withSizeLimit = [](rlim_t limit, const std::function<void()>& run) {
    struct rlimit saved, small;
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    small = saved;
    small.rlim_cur = limit;
    const sighandler_t previous = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    run();
    ::setrlimit(RLIMIT_FSIZE, &saved);
    ::signal(SIGXFSZ, previous);
  };
  EXPECT_EQ(local.send("/first", "first", "1"), "");
  // The journal has room for one more directory record ("D /deep\n") only.
  const auto journalSize = fs::file_size(dir.file("state/" + kSession + ".journal"));
  std::string reply;
  withSizeLimit(journalSize + 8, [&] { reply = local.send("/deep/er/", "f", "x"); });
  EXPECT_EQ(reply, "refused");
  EXPECT_FALSE(fs::exists(local.root + "/deep"));
  bool stagedGone = false;
  withSizeLimit(64 << 10, [&] {
    reply = local.send("/big", "big", TempDir::pattern(256 << 10));
    stagedGone = stagedPathOf(local.root, "big").empty();
  });
  EXPECT_EQ(reply, "self: Error writing /big: " + System::errorText(EFBIG));
  EXPECT_TRUE(stagedGone);
  EXPECT_EQ(local.session->commit(), "");  // reported once, in the file's own reply
  EXPECT_FALSE(fs::exists(local.root + "/big"));
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
  local.reconnect();
  ASSERT_EQ(local.open("/r/", "f", 8, 0640), 4);
  local.session->fileData("4567", 4);
  EXPECT_EQ(local.session->closeFile(), "");
  EXPECT_EQ(local.session->commit(), "");
  EXPECT_EQ(TempDir::read(local.root + "/r/f"), "01234567");
  EXPECT_EQ(modeOf(local.root + "/r/f"), 0640);
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

// Each fault of the disk ends with the file's error in the reply, the old
// target in place, the other files committed and nothing staged left.
TEST(StagingTest, DiskFaultsFailOnlyTheirFileAndLeaveNothingHalfDone) {
  using Fault = FaultyFileSystem::Fault;
  const struct {
    Fault fault;
    std::string reply, commit;  // of the victim's file, and of the commit
  } cases[] = {
      {Fault::DISK_FULL, "self: Error writing /d/victim: " + System::errorText(ENOSPC), ""},
      {Fault::SHORT_WRITE, "self: Error writing /d/victim: " + System::errorText(ENOSPC), ""},
      {Fault::FLIPPED_BYTE,
       "self: /d/victim: the staged copy differs from the bytes the head received "
       "(checksum mismatch)", ""},
      {Fault::FAILED_RENAME, "",
       "self: Unable to move into place /d/victim: " + System::errorText(EXDEV)},
  };
  for (const auto& c : cases) {
    TempDir dir;
    FaultyFileSystem files;
    LocalSession local(dir, &files);
    TempDir::write(local.root + "/d/victim", "old");
    EXPECT_EQ(local.send("/d/", "before", "b"), "") << c.fault;
    files.fault = c.fault;
    files.victim = "victim";
    EXPECT_EQ(local.send("/d/", "victim", TempDir::pattern(100000)), c.reply) << c.fault;
    EXPECT_EQ(local.send("/d/", "after", "a"), "") << c.fault;
    EXPECT_EQ(local.session->commit(), c.commit) << c.fault;
    EXPECT_EQ(TempDir::read(local.root + "/d/victim"), "old") << c.fault;
    EXPECT_EQ(TempDir::read(local.root + "/d/before") + TempDir::read(local.root + "/d/after"),
              "ba") << c.fault;
    EXPECT_TRUE(filesUnder(local.root, true).empty()) << c.fault;
  }
  // A file system that cannot be flushed takes no file into place.
  TempDir dir;
  FaultyFileSystem files;
  LocalSession local(dir, &files);
  EXPECT_EQ(local.send("/d/", "f", "new"), "");
  files.fault = Fault::FAILED_FLUSH;
  EXPECT_EQ(local.session->commit(),
            "self: Error flushing staged files: " + System::errorText(EIO));
  EXPECT_FALSE(fs::exists(local.root + "/d/f"));
  EXPECT_TRUE(filesUnder(local.root, true).empty());
}

// A directory that cannot be made refuses its file with the system's reason
// and leaves none of the directories made on the way; the next file of the
// upload lands.
TEST(StagingTest, ADirectoryThatCannotBeMadeRefusesItsFileAndLeavesNothing) {
  TempDir dir;
  FaultyFileSystem files;
  files.fault = FaultyFileSystem::FAILED_MKDIR;
  files.victim = "sub";
  LocalSession local(dir, &files);
  int64_t start = -1;
  std::string refusal;
  EXPECT_FALSE(local.session->openFile(FileInfo{1, "f", "/top/sub/f", 0644}, start, refusal));
  EXPECT_EQ(refusal, "self: /top/sub/f: Unable to create directory /top/sub: " +
                         System::errorText(EDQUOT));
  EXPECT_FALSE(fs::exists(local.root + "/top"));
  EXPECT_EQ(local.send("/top/", "other", "x"), "");
  EXPECT_EQ(local.session->commit(), "");
  EXPECT_EQ(TempDir::read(local.root + "/top/other"), "x");
  EXPECT_TRUE(filesUnder(local.root, true).empty());
}
