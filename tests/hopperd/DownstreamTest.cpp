// The relay link with every host inside the test process: hosts are reached
// over local socket pairs, so a host can be killed or frozen at an exact
// byte of a file, and the client's and the daemons' own code runs unchanged.
#include "hopperd/Downstream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
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
