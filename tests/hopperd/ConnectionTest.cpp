// A daemon's connections driven over local socket pairs by scripted upstream
// hosts, against a real session table and staging.
#include "hopperd/Connection.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {

// One connection of the daemon, served on a thread of its own, and the end
// of an upstream host that begins the upload with a relay identity.
struct Upstream {
  explicit Upstream(SessionTable& table) {
    auto ends = TCPSocket::pair();
    link = std::make_unique<TCPStream>(std::make_unique<TCPSocket>(ends.first.release()));
    link->socket().setReadTimeout(10000);
    auto connection =
        std::make_shared<Connection>(std::make_unique<TCPSocket>(ends.second.release()), table, 5000);
    served = std::thread([connection] { connection->run(); });
    Protocol::writeRelayIdentity(*link, RelayIdentity{"127.0.0.9", "upload1", "up"});
    Protocol::writeBegin(*link, {"self"}, false);
  }
  ~Upstream() {
    link->close();
    served.join();
  }
  // crc: the block's checksum, or null for the right one.
  void sendFile(int64_t seq, const std::string& path, const std::string& data,
                const uint32_t* crc) {
    const int64_t size = int64_t(data.size());
    Protocol::writeFilePart(*link, FilePart{FileInfo{size, "f", path, 0644}, seq, 0, size});
    Protocol::writeBlock(*link, data.data(), data.size(), crc);
    link->flush();
    ASSERT_EQ(Protocol::readBeginReply(*link).mStatus, BEGIN_OK);
  }
  std::unique_ptr<TCPStream> link;
  std::thread served;
};

}  // namespace

// A damaged block ends the link at once (its upstream then routes around
// this host) and drops the file; a whole-file check the staged copy fails is
// reported back on the link. Neither file is ever committed.
TEST(ConnectionTest, RelayedBytesFailingTheirChecksumAreNeverCommitted) {
  TempDir dir;
  DaemonConfig config;
  config.mRoot = dir.file("root");
  config.mStateDir = dir.file("state");
  fs::create_directories(config.mRoot);
  fs::create_directories(config.mStateDir);
  SessionTable table(config);
  {
    Upstream up(table);
    const uint32_t wrong = 0;
    up.sendFile(1, "/a", "damaged", &wrong);
    char byte;
    ASSERT_TRUE(up.link->socket().isReadable(10000));
    EXPECT_EQ(up.link->socket().read(&byte, 1), 0);
    EXPECT_EQ(stagedBytes(config.mRoot, "a"), -1);
  }
  Upstream next(table);  // the upload goes on along another path
  next.sendFile(2, "/b", "second", nullptr);
  Protocol::writeFileCheck(*next.link, FileCheck{2, 6, 12345});
  Protocol::writeCommit(*next.link);
  next.link->flush();
  const RelayMessage errors = Protocol::readRelayReply(*next.link, "self");
  EXPECT_EQ(errors.mTag, RELAY_FILE_ERRORS);
  EXPECT_EQ(errors.mText, "self: /b: the staged copy differs from the bytes the head received "
                          "(checksum mismatch)");
  EXPECT_EQ(Protocol::readRelayReply(*next.link, "self").mTag, RELAY_COMMITTED);
  EXPECT_FALSE(fs::exists(config.mRoot + "/a"));
  EXPECT_FALSE(fs::exists(config.mRoot + "/b"));
  EXPECT_TRUE(filesUnder(config.mRoot, true).empty());
}
