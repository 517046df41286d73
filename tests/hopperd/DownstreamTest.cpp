// The relay link against a scripted next host reached over a local socket
// pair, so that its replies can be timed against the link's own steps and
// what it sends can be read byte for byte.
#include "hopperd/Downstream.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <future>
#include <thread>

#include "hopperd/StagedFile.h"
#include "support/TempDir.h"

namespace {

// Answers the link's handshake, relay identity and begin, and its question
// which file the host holds last with held.
void acceptUpload(TCPStream& link, const LastFile& held) {
  ASSERT_EQ(Protocol::readCode(link), C2H_NEW_GET_VERSION);
  Protocol::readVersionRequest(link);
  Protocol::writeVersionReply(link);
  link.flush();
  ASSERT_EQ(Protocol::readCode(link), H2H_RELAY_IDENTITY);
  Protocol::readRelayIdentity(link);
  ASSERT_EQ(Protocol::readCode(link), C2H_BEGIN_UPLOAD);
  std::vector<std::string> hosts;
  bool stopAgents = false;
  Protocol::readBegin(link, hosts, stopAgents);
  Protocol::writeBeginReply(link, BeginResult());
  link.flush();
  ASSERT_EQ(Protocol::readCode(link), H2H_LAST_FILE);
  Protocol::writeLastFileReply(link, held);
  link.flush();
}

// Serves the first connection on its own thread with serve(fd, stream);
// every later one (a probe of a silent host) is closed unanswered.
class ScriptedHost : public Connector {
 public:
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
      try {
        serve(fd, link);
      } catch (const LinkLost&) {
      }
    });
    return std::move(ends.first);
  }

 protected:
  virtual void serve(int fd, TCPStream& link) = 0;

 private:
  std::thread mThread;
};

// The next host of a link, scripted: it accepts the upload, then sends its
// commit reply before the commit comes and waits until the link's reader has
// taken it. That is the order a fast host and a writer descheduled right
// after sending its commit produce. Every later connection (a probe of a
// silent host) is closed unanswered.
class EarlyCommitReplyHost : public ScriptedHost {
 public:
  // Waits (at most 10 s) until the link has taken the early reply.
  bool replyTaken() {
    return mReplyTaken.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  }

 private:
  void serve(int fd, TCPStream& link) override {
    acceptUpload(link, LastFile());
    waitUntilRead(fd);  // by the link's writer, which asked
    Protocol::writeCommitReply(link, "h2: committed early", true);
    link.flush();
    waitUntilRead(fd);  // by the link's reader
    mReplyTaken.set_value();
    EXPECT_EQ(Protocol::readCode(link), C2H_COMMIT_UPLOAD);
    Protocol::readCode(link);  // until the link closes
  }

  // Waits (at most 5 s) until the other end has read all that was sent.
  static void waitUntilRead(int fd) {
    int unread = 1;
    for (int i = 0; i < 5000 && unread > 0 && ::ioctl(fd, SIOCOUTQ, &unread) == 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(unread, 0) << "the link never read what its host sent";
  }

  std::promise<void> mReplyTaken;
};

// Holds nothing and collects the bytes of the file the link sends, part by
// part, until the link closes; each part must continue the bytes before it.
class RecordingHost : public ScriptedHost {
 public:
  // Waits (at most 10 s) for the link to close; what it sent of the file.
  std::string received() {
    auto done = mDone.get_future();
    return done.wait_for(std::chrono::seconds(10)) == std::future_status::ready ? done.get() : "";
  }

 private:
  void serve(int, TCPStream& link) override {
    acceptUpload(link, LastFile());
    std::string bytes;
    try {
      while (Protocol::readCode(link) == H2H_FILE_PART) {
        const FilePart part = Protocol::readFilePart(link);
        EXPECT_EQ(part.mStart, int64_t(bytes.size()));
        for (int64_t left = part.mCount; left > 0;) {
          uint32_t crc = 0;
          std::string block(size_t(Protocol::readBlockHeader(link, left, crc)), '\0');
          link.read(&block[0], std::streamsize(block.size()));
          bytes += block;
          left -= int64_t(block.size());
        }
      }
    } catch (const LinkLost&) {
    }
    mDone.set_value(bytes);
  }

  std::promise<std::string> mDone;
};

}  // namespace

// A commit reply the link's reader takes before the writer has recorded its
// commit still answers that commit: the link neither waits for the host's
// time-out nor reports it lost.
TEST(DownstreamReplyTest, ACommitReplyReadBeforeTheCommitIsRecordedStillCounts) {
  EarlyCommitReplyHost host;
  Downstream link(RelayIdentity{"127.0.0.1", "upload1", "h1"}, "h1", 2000, &host);
  BeginResult result;
  ASSERT_TRUE(link.connect({"h2"}, false, result, nullptr));
  ASSERT_TRUE(host.replyTaken());
  link.sendCommit();
  EXPECT_EQ(link.finishCommit(), "h2: committed early");
  EXPECT_TRUE(link.lostHosts().empty());
}

// When the link holds less of a file than this host's staged copy (its
// part ended early, then the file went on from further on, as after a head
// change), the missing bytes go from the copy before the new ones.
TEST(DownstreamReplyTest, TheLinkGetsWhatItMissesFromTheStagedCopy) {
  TempDir dir;
  const std::string content = TempDir::pattern(300000);
  const TargetPath paths(dir.path(), {});
  StagedFile copy(paths, "/f", "s1");
  const System::FileDescriptor root = System::openDirectory(dir.path());
  std::string error;
  ASSERT_TRUE(copy.create(root.get(), nullptr, error)) << error;
  ASSERT_TRUE(copy.append(content.data(), 200000, error)) << error;
  RecordingHost host;
  {
    Downstream link(RelayIdentity{"127.0.0.1", "upload1", "h1"}, "h1", 2000, &host);
    BeginResult result;
    ASSERT_TRUE(link.connect({"h2"}, false, result, nullptr));
    const FileInfo info{300000, "f", "/f", 0644};
    link.startPart(info, 1, &copy, 0, 50000);
    link.forward(content.data(), 50000, 0);
    EXPECT_EQ(link.finishPart(), "");
    link.startPart(info, 1, &copy, 200000, 100000);
    const std::string tail = content.substr(200000);  // a buffer of its own, as a relay's
    link.forward(tail.data(), tail.size(), 200000);
    EXPECT_EQ(link.finishPart(), "");
    link.flush();
    link.close();
  }
  EXPECT_TRUE(host.received() == content);
}
