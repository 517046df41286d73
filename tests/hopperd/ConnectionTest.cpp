// A daemon's connections driven over local socket pairs by scripted upstream
// hosts, against a real session table and staging.
#include "hopperd/Connection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <thread>

#include "hopper/Protocol.h"
#include "hopperd/DaemonConfig.h"
#include "hopperd/SessionTable.h"
#include "support/TempDir.h"

namespace {

// A disk whose first write waits (at most 20 s) until open is set.
struct GateFileSystem : FileSystem {
  bool writeAll(int fd, const char* data, size_t n) override {
    if (!mFirstDone.exchange(true)) {
      held.set_value();
      mOpened.wait_for(std::chrono::seconds(20));
    }
    return FileSystem::writeAll(fd, data, n);
  }
  std::promise<void> held, open;

 private:
  std::atomic<bool> mFirstDone{false};
  std::future<void> mOpened = open.get_future();
};

// One connection of the daemon, served on a thread of its own, and the
// upstream host's end of it.
struct Upstream {
  explicit Upstream(SessionTable& table) {
    auto ends = TCPSocket::pair();
    link = std::make_unique<TCPStream>(std::make_unique<TCPSocket>(ends.first.release()));
    link->socket().setReadTimeout(10000);
    auto connection =
        std::make_shared<Connection>(std::make_unique<TCPSocket>(ends.second.release()), table, 5000);
    served = std::thread([connection] { connection->run(); });
  }
  ~Upstream() {
    link->close();
    if (served.joinable()) served.join();
  }
  void begin(const std::string& sender) {
    Protocol::writeRelayIdentity(*link, RelayIdentity{"127.0.0.9", "upload1", sender});
    Protocol::writeBegin(*link, {"self"}, false);
  }
  void sendFile(int64_t seq, const std::string& path, const std::string& data,
                const uint32_t* crc = nullptr) {
    const int64_t size = int64_t(data.size());
    Protocol::writeFilePart(*link, FilePart{FileInfo{size, "f", path, 0644}, seq, 0, size});
    Protocol::writeBlock(*link, data.data(), data.size(), crc);
  }

  std::unique_ptr<TCPStream> link;
  std::thread served;
};

class ConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    config.mRoot = dir.file("root");
    config.mStateDir = dir.file("state");
    std::filesystem::create_directories(config.mRoot);
    std::filesystem::create_directories(config.mStateDir);
  }
  TempDir dir;
  DaemonConfig config;
};

}  // namespace

// The same upload relayed along a new path takes the session over while its
// old upstream connection still holds messages it has read but not acted
// on. That connection lets the session go instead of applying them behind
// the new owner's back, so the new upstream host hears the true last file.
TEST_F(ConnectionTest, AnUploadTakenOverGetsNothingMoreFromItsOldUpstream) {
  GateFileSystem disk;
  config.mFileSystem = &disk;
  SessionTable table(config);
  Upstream old(table);
  old.begin("old");
  old.sendFile(1, "/a", "first");
  old.sendFile(2, "/b", "second");  // read with the first, acted on after it
  old.link->flush();
  ASSERT_EQ(Protocol::readBeginReply(*old.link).mStatus, BEGIN_OK);
  // Writing the first file.
  ASSERT_EQ(disk.held.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);

  Upstream fresh(table);
  fresh.begin("new");
  fresh.link->flush();
  // Taking the session over ends the old connection's link.
  ASSERT_TRUE(old.link->socket().isReadable(10000));
  disk.open.set_value();
  ASSERT_EQ(Protocol::readBeginReply(*fresh.link).mStatus, BEGIN_OK);
  old.served.join();

  Protocol::writeLastFileRequest(*fresh.link);
  fresh.link->flush();
  const LastFile last = Protocol::readLastFileReply(*fresh.link);
  EXPECT_EQ(last.mSeq, 1);
  EXPECT_EQ(last.mBytes, 5);
  EXPECT_EQ(stagedBytes(config.mRoot, "b"), -1);
}

// Relayed bytes that fail their checksum are never committed: a damaged
// block ends the link at once (its upstream then routes around this host)
// and drops the file; a whole-file check the staged copy fails is reported
// back on the link.
TEST_F(ConnectionTest, RelayedBytesFailingTheirChecksumAreNeverCommitted) {
  SessionTable table(config);
  {
    Upstream up(table);
    up.begin("up");
    const uint32_t wrong = 0;
    up.sendFile(1, "/a", "damaged", &wrong);
    up.link->flush();
    ASSERT_EQ(Protocol::readBeginReply(*up.link).mStatus, BEGIN_OK);
    char byte;
    ASSERT_TRUE(up.link->socket().isReadable(10000));
    EXPECT_EQ(up.link->socket().read(&byte, 1), 0);
    EXPECT_EQ(stagedBytes(config.mRoot, "a"), -1);
  }
  Upstream next(table);  // the upload goes on along another path
  next.begin("next");
  next.sendFile(2, "/b", "second");
  Protocol::writeFileCheck(*next.link, FileCheck{2, 6, 12345});
  Protocol::writeCommit(*next.link);
  next.link->flush();
  ASSERT_EQ(Protocol::readBeginReply(*next.link).mStatus, BEGIN_OK);
  const RelayMessage errors = Protocol::readRelayReply(*next.link, "self");
  EXPECT_EQ(errors.mTag, RELAY_FILE_ERRORS);
  EXPECT_EQ(errors.mText, "self: /b: the staged copy differs from the bytes the head received "
                          "(checksum mismatch)");
  EXPECT_EQ(Protocol::readRelayReply(*next.link, "self").mTag, RELAY_COMMITTED);
  EXPECT_FALSE(std::filesystem::exists(config.mRoot + "/a"));
  EXPECT_FALSE(std::filesystem::exists(config.mRoot + "/b"));
  EXPECT_TRUE(filesUnder(config.mRoot, true).empty());
}
