// System services: directories, attributes, retries, descriptors and the
// no-follow calls relative to an open directory, shell commands, output
// files and sleeps through signals.
#include "util/System.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "support/TempDir.h"

class SystemTest : public ::testing::Test {
 protected:
  TempDir dir;
};

TEST_F(SystemTest, ReadDirectoryExistenceAttributesAndRemoval) {
  // Enough long names to need several reads of the entry buffer.
  std::vector<std::string> expected = {".", ".."}, names;
  for (int i = 0; i < 150; ++i) {
    expected.push_back("entry_with_a_fairly_long_name_" + std::to_string(i));
    TempDir::write(dir.file(expected.back()), "x");
  }
  ASSERT_TRUE(System::readDirectory(dir.path(), names));
  std::sort(names.begin(), names.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, names);

  const std::string file = dir.file("f"), link = dir.file("dangling");
  TempDir::write(file, "12345");
  ASSERT_EQ(0, symlink(dir.file("nowhere").c_str(), link.c_str()));
  EXPECT_TRUE(System::fileExists(file, FOLLOW_SYMLINK));
  EXPECT_FALSE(System::fileExists(link, FOLLOW_SYMLINK));
  EXPECT_TRUE(System::fileExists(link, DONT_FOLLOW_SYMLINK));
  FileAttributes attrs;
  ASSERT_TRUE(attrs.stat(file, FOLLOW_SYMLINK));
  EXPECT_EQ(5, attrs.mSize);
  ASSERT_TRUE(attrs.stat(link, DONT_FOLLOW_SYMLINK));
  EXPECT_EQ(TYPE_SYMLINK, attrs.getType());
  EXPECT_TRUE(attrs.isRegularFile()) << "a link read without following counts as regular";
  EXPECT_EQ(0, System::remove(dir.file("missing")));
  EXPECT_EQ(0, System::remove(file + "/below"));  // ENOTDIR counts as gone
  EXPECT_EQ(0, System::remove(file));
  EXPECT_FALSE(System::fileExists(file));
  EXPECT_EQ(System::OS_LINUX, System::makeOSID("LINUX"));
  EXPECT_EQ(System::OS_INVALID, System::makeOSID("linux2"));
}

// A removal goes on trying until what blocked it is gone, and else reports why.
TEST_F(SystemTest, RetriedRemovalWaitsForItsObstacle) {
  ASSERT_TRUE(System::makeDirectory(dir.file("full"), 0755));
  TempDir::write(dir.file("full/x"), "x");
  EXPECT_FALSE(System::retryRemove(dir.file("full"), true, 2, 1));
  EXPECT_EQ(ENOTEMPTY, errno);
  std::thread clearer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    System::removeFile(dir.file("full/x"));
  });
  EXPECT_TRUE(System::retryRemove(dir.file("full"), true, 500, 10));
  clearer.join();
}

TEST_F(SystemTest, DescriptorServices) {
  const std::string path = dir.file("out"), link = dir.file("link");
  {
    System::FileDescriptor fd = System::openForWrite(path, 0600, O_TRUNC);
    ASSERT_TRUE(System::writeAll(fd.get(), "hello", 5));
    ASSERT_TRUE(System::changeMode(fd.get(), 0640));
  }
  FileAttributes attrs;
  ASSERT_TRUE(attrs.stat(path, DONT_FOLLOW_SYMLINK));
  EXPECT_EQ(5, attrs.mSize);
  EXPECT_EQ(0640, attrs.permissions());
  System::FileDescriptor in = System::openForRead(path);
  EXPECT_TRUE(::fcntl(in.get(), F_GETFD) & FD_CLOEXEC);
  char buf[16] = {};
  EXPECT_EQ(3, System::preadSome(in.get(), buf, sizeof buf, 2));
  EXPECT_EQ("llo", std::string(buf, 3));
  EXPECT_EQ(5, System::readFull(in.get(), buf, sizeof buf));

  // Never through a symbolic link at the last component.
  ASSERT_EQ(0, symlink(path.c_str(), link.c_str()));
  EXPECT_FALSE(System::openForWrite(link, 0600).valid());
  EXPECT_EQ(ELOOP, errno);
  EXPECT_FALSE(System::makeDirectory(link, 0700));
  EXPECT_TRUE(System::removeFile(link));
  EXPECT_TRUE(System::fileExists(path)) << "only the link is removed";
}

TEST_F(SystemTest, NamesInsideAnOpenDirectoryNeverFollowALink) {
  TempDir elsewhere;
  TempDir::write(dir.file("file"), "12345");
  TempDir::write(elsewhere.file("precious"), "keep");
  ASSERT_EQ(0, symlink(elsewhere.path().c_str(), dir.file("dirlink").c_str()));
  ASSERT_EQ(0, symlink(elsewhere.file("made").c_str(), dir.file("dangling").c_str()));
  ASSERT_EQ(0, symlink(elsewhere.file("precious").c_str(), dir.file("filelink").c_str()));
  ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
  const System::FileDescriptor at = System::openDirectory(dir.path());
  const auto failsWith = [](bool ok, int expected) { return !ok && errno == expected; };
  EXPECT_TRUE(failsWith(System::openDirectoryAt(at.get(), "dirlink").valid(), ELOOP));
  EXPECT_TRUE(failsWith(System::openDirectoryAt(at.get(), "file").valid(), ENOTDIR));
  EXPECT_TRUE(failsWith(System::createExclusiveAt(at.get(), "dangling", 0600).valid(), EEXIST));
  EXPECT_TRUE(failsWith(System::openFileAt(at.get(), "filelink", true).valid(), ELOOP));
  EXPECT_TRUE(failsWith(System::openFileAt(at.get(), "fifo", false).valid(), EINVAL));
  EXPECT_FALSE(System::openFileAt(at.get(), "fifo", true).valid());  // and does not wait
  EXPECT_FALSE(System::fileExists(elsewhere.file("made"), DONT_FOLLOW_SYMLINK));

  ASSERT_TRUE(System::makeDirectoryAt(at.get(), "sub", 0700));
  const System::FileDescriptor sub = System::openDirectoryAt(at.get(), "sub");
  ASSERT_TRUE(System::writeAll(System::createExclusiveAt(sub.get(), "new", 0600).get(), "ab", 2));
  ASSERT_TRUE(System::writeAll(System::openFileAt(sub.get(), "new", true).get(), "cd", 2));
  EXPECT_TRUE(failsWith(System::removeDirectoryAt(at.get(), "sub"), ENOTEMPTY));
  // Renamed over a link and removed: the link goes, never what it points to.
  ASSERT_TRUE(System::renameAt(sub.get(), "new", at.get(), "filelink"));
  EXPECT_EQ("abcd", TempDir::read(dir.file("filelink")));
  EXPECT_TRUE(System::removeFileAt(at.get(), "dirlink"));
  EXPECT_EQ("keep", TempDir::read(elsewhere.file("precious")));
  EXPECT_TRUE(System::removeDirectoryAt(at.get(), "sub"));
  FileAttributes attrs;
  EXPECT_TRUE(failsWith(attrs.statAt(at.get(), "sub", DONT_FOLLOW_SYMLINK), ENOENT));
  ASSERT_TRUE(attrs.statAt(at.get(), "dangling", DONT_FOLLOW_SYMLINK));
  EXPECT_TRUE(attrs.isSymlink());
}

TEST_F(SystemTest, ShellCommandsSeeNoBlockedSignalsNorClosedOnExecFiles) {
  EXPECT_EQ(3, System::runShellCommand("exit 3"));
  EXPECT_EQ(128 + SIGTERM, System::runShellCommand("kill -TERM $$"));
  sigset_t term, saved;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, &saved);
  const int status = System::runShellCommand("grep -q '^SigBlk:[[:space:]]*0*$' /proc/self/status");
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  EXPECT_EQ(0, status);

  const std::string seesLog = "ls -l /proc/self/fd/ | grep -q '" + dir.file("log") + "'";
  auto out = System::make_ofstream(dir.file("log"), std::ios::out, true);
  EXPECT_NE(0, System::runShellCommand(seesLog));
  auto inherited = System::make_ofstream(dir.file("log"), std::ios::app, false);
  EXPECT_EQ(0, System::runShellCommand(seesLog));
}

// The stream writes through its own descriptor, with the position counting
// what is still buffered, and every byte out at destruction. (Appending is
// the log file's mode, which the logger tests cover.)
TEST_F(SystemTest, OutputFileTruncatesAndWritesEverything) {
  const std::string path = dir.file("f"), bulk = TempDir::pattern(20000);  // more than the buffer
  TempDir::write(path, "old content");
  {
    auto out = System::make_ofstream(path);
    *out << "abc";
    EXPECT_EQ(out->tellp(), 3);
    out->write(bulk.data(), static_cast<std::streamsize>(bulk.size()));
  }
  EXPECT_TRUE(TempDir::read(path) == "abc" + bulk);

  EXPECT_FALSE(System::make_ofstream(dir.file("no/such/folder"))->good());
}

// Signals whose handler interrupts system calls do not cut the wait short.
TEST_F(SystemTest, SleepLastsThroughInterruptingSignals) {
  std::atomic<bool> ready{false}, done{false};
  std::chrono::steady_clock::duration slept{};
  std::thread sleeper([&] {
    ASSERT_TRUE(System::trapUSR1ButDoNothing());
    ready = true;
    const auto start = std::chrono::steady_clock::now();
    System::sleep(300);
    slept = std::chrono::steady_clock::now() - start;
    done = true;
  });
  for (int i = 0; i < 1000 && !ready; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  for (int i = 0; i < 2000 && !done; ++i) {
    if (ready) pthread_kill(sleeper.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  sleeper.join();
  EXPECT_GE(slept, std::chrono::milliseconds(300));
}
