// The relay link against a scripted next host reached over a local socket
// pair, so that its replies can be timed against the link's own steps.
#include "hopperd/Downstream.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <future>
#include <thread>

namespace {

// The next host of a link, scripted: it accepts the upload, then sends its
// commit reply before the commit comes and waits until the link's reader has
// taken it. That is the order a fast host and a writer descheduled right
// after sending its commit produce. Every later connection (a probe of a
// silent host) is closed unanswered.
class EarlyCommitReplyHost : public Connector {
 public:
  ~EarlyCommitReplyHost() override {
    if (mThread.joinable()) mThread.join();
  }
  // Waits (at most 10 s) until the link has taken the early reply.
  bool replyTaken() {
    return mReplyTaken.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  }
  System::FileDescriptor connect(const std::string&, int, long) override {
    if (mThread.joinable()) return {};
    auto ends = TCPSocket::pair();
    const int fd = ends.second.get();
    mThread = std::thread([this, fd, socket = std::make_unique<TCPSocket>(ends.second.release())]()
                              mutable { serve(fd, std::move(socket)); });
    return std::move(ends.first);
  }

 private:
  void serve(int fd, std::unique_ptr<TCPSocket> socket) {
    TCPStream link(std::move(socket));
    link.socket().setReadTimeout(10000);
    try {
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
      Protocol::writeLastFileReply(link, LastFile());
      link.flush();
      waitUntilRead(fd);  // by the link's writer, which asked
      Protocol::writeCommitReply(link, "h2: committed early", true);
      link.flush();
      waitUntilRead(fd);  // by the link's reader
      mReplyTaken.set_value();
      EXPECT_EQ(Protocol::readCode(link), C2H_COMMIT_UPLOAD);
      Protocol::readCode(link);  // until the link closes
    } catch (const LinkLost&) {
    }
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
  std::thread mThread;
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
