// The relay link against a scripted next host over a local socket pair.
#include "hopperd/Downstream.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <functional>
#include <future>
#include <thread>

#include "hopperd/StagedFile.h"
#include "support/TempDir.h"

namespace {

// Accepts the link's first connection (holding no file yet), then serve(fd, link); refuses probes.
class ScriptedHost : public Connector {
 public:
  explicit ScriptedHost(std::function<void(int, TCPStream&)> serve) : mServe(std::move(serve)) {}
  ~ScriptedHost() override {
    if (mThread.joinable()) mThread.join();
  }
  System::FileDescriptor connect(const std::string&, int, long) override {
    if (mThread.joinable()) return {};
    auto ends = TCPSocket::pair();
    const int fd = ends.second.get();
    mThread = std::thread([this, fd, socket = std::make_unique<TCPSocket>(ends.second.release())]()
                              mutable {
      TCPStream link(std::move(socket));
      link.socket().setReadTimeout(10000);
      std::vector<std::string> hosts;
      bool stopAgents = false;
      try {
        EXPECT_EQ(Protocol::readCode(link), C2H_NEW_GET_VERSION);
        Protocol::readVersionRequest(link);
        Protocol::writeVersionReply(link);
        link.flush();
        EXPECT_EQ(Protocol::readCode(link), H2H_RELAY_IDENTITY);
        Protocol::readRelayIdentity(link);
        EXPECT_EQ(Protocol::readCode(link), C2H_BEGIN_UPLOAD);
        Protocol::readBegin(link, hosts, stopAgents);
        Protocol::writeBeginReply(link, BeginResult());
        link.flush();
        EXPECT_EQ(Protocol::readCode(link), H2H_LAST_FILE);
        Protocol::writeLastFileReply(link, LastFile());
        link.flush();
        mServe(fd, link);
      } catch (const LinkLost&) {
      }
    });
    return std::move(ends.first);
  }

 private:
  std::function<void(int, TCPStream&)> mServe;
  std::thread mThread;
};

// Waits (at most 5 s) until the other end has read all that was sent.
void waitUntilRead(int fd) {
  int unread = 1;
  for (int i = 0; i < 5000 && unread > 0 && ::ioctl(fd, SIOCOUTQ, &unread) == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(unread, 0) << "the link never read what its host sent";
}

}  // namespace

// A fast host's commit reply read before the writer records the commit still answers it.
TEST(DownstreamReplyTest, ACommitReplyReadBeforeTheCommitIsRecordedStillCounts) {
  std::promise<void> taken;
  ScriptedHost host([&taken](int fd, TCPStream& link) {
    waitUntilRead(fd);  // by the link's writer, which asked
    Protocol::writeCommitReply(link, "h2: committed early", true);
    link.flush();
    waitUntilRead(fd);  // by the link's reader
    taken.set_value();
    EXPECT_EQ(Protocol::readCode(link), C2H_COMMIT_UPLOAD);
    Protocol::readCode(link);  // until the link closes
  });
  Downstream link(RelayIdentity{"127.0.0.1", "upload1", "h1"}, "h1", 2000, &host);
  BeginResult result;
  ASSERT_TRUE(link.connect({"h2"}, false, result, nullptr));
  ASSERT_EQ(taken.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  link.sendCommit();
  EXPECT_EQ(link.finishCommit(), "h2: committed early");
  EXPECT_TRUE(link.lostHosts().empty());
}

// A file resumed further on (a head change): the link gets the gap from the staged copy.
TEST(DownstreamReplyTest, TheLinkGetsWhatItMissesFromTheStagedCopy) {
  TempDir dir;
  const std::string content = TempDir::pattern(300000);
  const TargetPath paths(dir.path(), {});
  StagedFile copy(paths, "/f", "s1");
  const System::FileDescriptor root = System::openDirectory(dir.path());
  std::string error, received;
  ASSERT_TRUE(copy.create(root.get(), nullptr, error)) << error;
  ASSERT_TRUE(copy.append(content.data(), 200000, error)) << error;
  {
    ScriptedHost host([&received](int, TCPStream& link) {
      while (Protocol::readCode(link) == H2H_FILE_PART) {
        const FilePart part = Protocol::readFilePart(link);
        EXPECT_EQ(part.mStart, int64_t(received.size()));
        for (int64_t left = part.mCount; left > 0;) {
          uint32_t crc = 0;
          std::string block(size_t(Protocol::readBlockHeader(link, left, crc)), '\0');
          link.read(&block[0], std::streamsize(block.size()));
          received += block;
          left -= int64_t(block.size());
        }
      }
    });
    Downstream link(RelayIdentity{"127.0.0.1", "upload1", "h1"}, "h1", 2000, &host);
    BeginResult result;
    ASSERT_TRUE(link.connect({"h2"}, false, result, nullptr));
    const FileInfo info{300000, "f", "/f", 0644};
    link.startPart(info, 1, &copy, 0, 50000);
    link.forward(content.data(), 50000, 0);
    EXPECT_EQ(link.finishPart(), "");
    link.startPart(info, 1, &copy, 200000, 100000);
    const std::string tail = content.substr(200000);  // a buffer of its own, as a relay's
    ASSERT_TRUE(copy.append(tail.data(), tail.size(), error)) << error;
    link.forward(tail.data(), 50000, 200000);
    EXPECT_EQ(link.finishPart(), "");
    link.flush();
    link.close();
  }  // the host's thread is joined
  EXPECT_TRUE(received == content);
}
