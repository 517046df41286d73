// Runs the real hivecopy program against a chain of real hopperd daemons on
// loopback addresses.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "support/DaemonProcess.h"
#include "support/RunProcess.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

class RelayChainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::vector<std::string> addresses{"127.0.0.2", "127.0.0.3", "127.0.0.4"};
    const int port = DaemonProcess::freePort(addresses);
    for (size_t i = 0; i < addresses.size(); ++i) {
      daemons.push_back(std::make_unique<DaemonProcess>(
          HIVE_BINARY_DIR "/hopperd", addresses[i], port, dir.file("d" + std::to_string(i)),
          std::vector<std::string>{"--resume-window=1"}));
      ASSERT_TRUE(daemons.back()->start()) << daemons.back()->id();
      hosts += (hosts.empty() ? "--hosts=" : " ") + daemons.back()->id();
    }
  }
  fs::path root(size_t i) const { return daemons[i]->root(); }

  TempDir dir;
  std::vector<std::unique_ptr<DaemonProcess>> daemons;
  std::string hosts;
};

TEST_F(RelayChainTest, InterruptedCopyChangesNothingAndTheNextCopyLands) {
  for (size_t i = 0; i < daemons.size(); ++i) {
    TempDir::write(root(i) / "opt/big", 3, 0, fs::perms(0644));
  }
  TempDir::write(dir.file("src/big"), 64 << 20, 4, fs::perms(0644));
  RunProcess copy(HIVE_BINARY_DIR "/hivecopy", {hosts, dir.file("src/big"), "/opt/big"});
  ASSERT_TRUE(waitFor([&] { return stagedBytes(root(2), "big") > 1 << 20; }))
      << "no staged bytes reached the tail";
  copy.signal(SIGINT);
  const RunProcess::Result r = copy.wait(60000);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Aborting upload..."), std::string::npos) << r.err;
  for (size_t i = 0; i < daemons.size(); ++i) {
    EXPECT_EQ(fs::file_size(root(i) / "opt/big"), 3u);
    EXPECT_TRUE(waitFor([&] { return filesUnder(root(i), true).empty(); }));
  }
  // Once the resume window has passed, the hosts take the next upload.
  const RunProcess::Result next =
      RunProcess(HIVE_BINARY_DIR "/hivecopy", {hosts, dir.file("src/big"), "/opt/big"}).wait(60000);
  EXPECT_EQ(next.status, 0) << next.err;
  EXPECT_EQ(next.err, "");
  EXPECT_NE(next.out.find("Upload time: "), std::string::npos);
  for (size_t i = 0; i < daemons.size(); ++i) {
    EXPECT_TRUE(TempDir::read(root(i) / "opt/big") == TempDir::read(dir.file("src/big")));
  }
}
