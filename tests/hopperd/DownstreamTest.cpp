// The relay link with every host inside the test process: hosts are reached
// over local socket pairs, so a host can be killed or frozen at an exact
// byte of a file, and the client's and the daemons' own code runs unchanged.
#include "hopperd/Downstream.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <sstream>
#include <thread>

#include "hopper/UploadManager.h"
#include "hopperd/Connection.h"
#include "hopperd/DaemonConfig.h"
#include "hopperd/SessionTable.h"
#include "support/PairConnector.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {

// A disk that calls onFull once more than limit bytes have been written.
class TrippingFileSystem : public FileSystem {
 public:
  TrippingFileSystem(int64_t limit, std::function<void()> onFull)
      : mLimit(limit), mOnFull(std::move(onFull)) {}
  bool writeAll(int fd, const char* data, size_t n) override {
    if (mWritten.fetch_add(int64_t(n)) + int64_t(n) > mLimit && !mTripped.exchange(true)) mOnFull();
    return FileSystem::writeAll(fd, data, n);
  }

 private:
  const int64_t mLimit;
  std::function<void()> mOnFull;
  std::atomic<int64_t> mWritten{0};
  std::atomic<bool> mTripped{false};
};

// One daemon: its root, state directory and session table, and a thread per
// connection. kill() ends it as a dying process would; freeze() as a stopped
// one: new connections are held unread, and the disk blocks until thaw().
class Host {
 public:
  Host(PairConnector& connector, const std::string& name, const fs::path& dir,
       FileSystem* disk = FileSystem::posix())
      : mConnector(connector), mName(name) {
    mConfig.mRoot = (dir / name / "root").string();
    mConfig.mStateDir = (dir / name / "state").string();
    mConfig.mIoTimeoutSeconds = 1;
    mConfig.mConnector = &connector;
    mConfig.mFileSystem = disk;
    fs::create_directories(mConfig.mRoot);
    fs::create_directories(mConfig.mStateDir);
    mTable = std::make_unique<SessionTable>(mConfig);
    connector.add(name, [this](std::unique_ptr<TCPSocket> socket) { serve(std::move(socket)); });
  }
  ~Host() {
    kill();
    thaw();
    for (std::thread& t : mThreads) t.join();
  }

  fs::path root() const { return mConfig.mRoot; }
  void kill() {
    mConnector.remove(mName);
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto& connection : mConnections) connection->interrupt();
    mHeld.clear();
  }
  void freeze() {
    std::lock_guard<std::mutex> lock(mMutex);
    mFrozen = true;
  }
  void thaw() {
    std::lock_guard<std::mutex> lock(mMutex);
    mFrozen = false;
    mThawed.notify_all();
  }
  // Blocks a disk write while frozen (at most 20 s).
  void waitWhileFrozen() {
    std::unique_lock<std::mutex> lock(mMutex);
    mThawed.wait_for(lock, std::chrono::seconds(20), [this] { return !mFrozen; });
  }

 private:
  void serve(std::unique_ptr<TCPSocket> socket) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mFrozen) {
      mHeld.push_back(std::move(socket));
      return;
    }
    auto connection = std::make_shared<Connection>(std::move(socket), *mTable, 1000);
    mConnections.push_back(connection);
    mThreads.emplace_back([connection] { connection->run(); });
  }

  PairConnector& mConnector;
  const std::string mName;
  DaemonConfig mConfig;
  std::unique_ptr<SessionTable> mTable;
  std::mutex mMutex;
  std::condition_variable mThawed;
  bool mFrozen = false;
  std::vector<std::unique_ptr<TCPSocket>> mHeld;
  std::vector<std::shared_ptr<Connection>> mConnections;
  std::vector<std::thread> mThreads;
};

// A disk that freezes its host once more than limit bytes have been written.
class FreezingFileSystem : public FileSystem {
 public:
  explicit FreezingFileSystem(int64_t limit) : mLimit(limit) {}
  void attach(Host* host) { mHost = host; }
  bool writeAll(int fd, const char* data, size_t n) override {
    if (mWritten.fetch_add(int64_t(n)) + int64_t(n) > mLimit) {
      mHost->freeze();
      mHost->waitWhileFrozen();
    }
    return FileSystem::writeAll(fd, data, n);
  }

 private:
  const int64_t mLimit;
  Host* mHost = nullptr;
  std::atomic<int64_t> mWritten{0};
};

class DownstreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TempDir::write(dir.file("src/big"), 8 << 20, 3, fs::perms(0644));
    TempDir::write(dir.file("src/small"), 3000, 4, fs::perms(0600));
  }
  bool upload(const std::vector<std::string>& hosts) {
    IPtoNameMap names;
    for (const std::string& host : hosts) names[host] = host;
    // The run's time limit bounds a test whose relay link hangs.
    UploadManager manager(names, false, false, 30, System::OS_LINUX, out, err);
    manager.setConnector(&connector);
    return manager.upload(dir.file("src/"), "/data");
  }
  void expectCopied(const fs::path& root) {
    for (const char* name : {"big", "small"}) {
      EXPECT_TRUE(TempDir::read(root / "data" / name) == TempDir::read(dir.file("src") + "/" + name))
          << root << " " << name;
    }
    EXPECT_TRUE(filesUnder(root, true).empty()) << root;  // nothing left staged
  }

  PairConnector connector;
  TempDir dir;
  std::ostringstream out, err;
};

}  // namespace

// A relay host dies in the middle of the large file: its upstream links to
// the host after it, re-sends what that host misses from its own staged
// copy, and the upload completes on the others without the client noticing
// more than the lost host.
TEST_F(DownstreamTest, AHostThatDiesInAFileIsRoutedAround) {
  Host* middle = nullptr;
  TrippingFileSystem disk(3 << 20, [&] { middle->kill(); });
  Host h1(connector, "h1", dir.path()), h2(connector, "h2", dir.path(), &disk),
      h3(connector, "h3", dir.path());
  middle = &h2;
  EXPECT_TRUE(upload({"h1", "h2", "h3"})) << err.str();
  EXPECT_EQ(err.str(), "Errors while committing uploaded file(s):\n"
                       "h1: Unable to connect or lost connection to h2.\n");
  expectCopied(h1.root());
  expectCopied(h3.root());
  EXPECT_TRUE(filesUnder(h2.root(), false).empty());  // nothing half-copied is visible
}

// A relay host that stops (reads nothing, answers no handshake) is given up
// after the link's time-out instead of holding the upload for ever.
TEST_F(DownstreamTest, AHostThatStopsInAFileIsDroppedAfterTheTimeOut) {
  FreezingFileSystem disk(3 << 20);
  Host h1(connector, "h1", dir.path()), h2(connector, "h2", dir.path(), &disk),
      h3(connector, "h3", dir.path());
  disk.attach(&h2);
  EXPECT_TRUE(upload({"h1", "h2", "h3"})) << err.str();
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "h1: Unable to connect or lost connection to h2.",
                      err.str());
  expectCopied(h1.root());
  expectCopied(h3.root());
  h2.thaw();
}

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
