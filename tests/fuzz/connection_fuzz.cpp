// The daemon's connection handler (Connection::run) over one peer's whole
// byte stream, written into a socket pair; its replies are dropped. In a
// network namespace of its own with no interface up, every host a begin
// names is unreachable at once; without one it exits 77 (skipped). Only /in
// is allowed. After each input the connection closed within the bound with
// no descriptor left open; root and state hold only files and directories,
// the root only /in and the staged copy of /in beside it, the state only
// journals. Once the orphan is reaped another client's begin gets a session,
// and then nothing staged and no journal is left.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

#include "hopperd/Connection.h"
#include "tests/fuzz/FuzzCheck.h"

namespace fs = std::filesystem;

namespace {

const int kIoTimeoutMs = 1000;

struct Sandbox {
  Sandbox() {
    if (::unshare(CLONE_NEWNET) != 0) {
      std::printf("connection_fuzz: no network namespace of its own (%s); no input run\n",
                  std::strerror(errno));
      std::fflush(stdout);
      std::_Exit(77);
    }
    std::signal(SIGPIPE, SIG_IGN);
    // tmpfs when there is one: commit flushes file systems.
    char name[] = "/dev/shm/hive_conn_fuzz_XXXXXX", fallback[] = "/tmp/hive_conn_fuzz_XXXXXX";
    const char* made = ::mkdtemp(name);
    FUZZ_CHECK(made != nullptr || (made = ::mkdtemp(fallback)) != nullptr);
    base = made;
    for (const char* dir : {"root", "state"}) fs::create_directory(base / dir);
  }
  ~Sandbox() {
    std::error_code ignored;
    fs::remove_all(base, ignored);
  }
  fs::path base;
} sandbox;

struct ProbeOwner : SessionOwner {
  void interrupt() override {}
};

long openDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

// Writes the input, shuts the sending side down and reads until the daemon
// closes; false when that takes longer than 8 s.
bool exchange(int fd, const uint8_t* data, size_t size) {
  FUZZ_CHECK(::fcntl(fd, F_SETFL, O_NONBLOCK) == 0);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(8);
  size_t sent = 0;
  if (size == 0) ::shutdown(fd, SHUT_WR);
  char sink[65536];
  while (std::chrono::steady_clock::now() < until) {
    pollfd p{fd, short(POLLIN | (sent < size ? POLLOUT : 0)), 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    if (p.revents & POLLOUT) {
      const ssize_t n = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL);
      if (n > 0) sent += size_t(n);
      if (n < 0 && errno != EAGAIN) sent = size;  // the daemon has closed
      if (sent == size) ::shutdown(fd, SHUT_WR);
    }
    if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
      const ssize_t n = ::read(fd, sink, sizeof sink);
      if (n == 0 || (n < 0 && errno != EAGAIN)) return true;
    }
  }
  return false;
}

// A staged file (".<name>...staged"), unless the peer named a target so.
bool stagedLeftover(const std::string& name, const std::string& input) {
  const std::string end = ".staged";
  return name.size() > end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0 &&
         name[0] == '.' && input.find(name) == std::string::npos;
}

void checkTree(const std::string& input, bool sessionsGone) {
  for (auto it = fs::recursive_directory_iterator(sandbox.base); it != fs::recursive_directory_iterator(); ++it) {
    const fs::file_status status = it->symlink_status();
    FUZZ_CHECK(fs::is_directory(status) || fs::is_regular_file(status));
    const fs::path rel = it->path().lexically_relative(sandbox.base);
    const std::string top = rel.begin()->string(), name = it->path().filename().string();
    FUZZ_CHECK(top == "root" || top == "state");
    if (it.depth() == 0) continue;
    if (top == "state") {
      FUZZ_CHECK(!sessionsGone && it.depth() == 1 && fs::is_regular_file(status));
      FUZZ_CHECK(name.size() > 8 && name.compare(name.size() - 8, 8, ".journal") == 0);
      continue;
    }
    if (sessionsGone) FUZZ_CHECK(!stagedLeftover(name, input));
    if (std::next(rel.begin())->string() == "in") continue;
    // Else the staged copy of the target /in itself, which lies beside it.
    FUZZ_CHECK(it.depth() == 1 && fs::is_regular_file(status));
    FUZZ_CHECK(name.compare(0, 4, ".in.") == 0 && stagedLeftover(name, input));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const long descriptors = openDescriptors();
  {
    DaemonConfig config;
    config.mRoot = (sandbox.base / "root").string();
    config.mStateDir = (sandbox.base / "state").string();
    config.mAllowedPaths = {"/in"};
    config.mResumeWindowSeconds = 0;  // an orphan may be reaped at once
    config.mIoTimeoutSeconds = kIoTimeoutMs / 1000;
    SessionTable table(config);
    int fds[2];
    FUZZ_CHECK(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0);
    auto connection = std::make_shared<Connection>(std::make_unique<TCPSocket>(fds[0]), table, kIoTimeoutMs);
    std::thread worker([connection] { connection->run(); });
    FUZZ_CHECK(exchange(fds[1], data, size));
    worker.join();
    ::close(fds[1]);
    checkTree(input, false);

    for (int i = 0; i < 4 && table.reap(); ++i) continue;
    SessionTable::BeginRequest other;
    other.mHosts = {"probe-host"};
    other.mClientAddress = "probe-client";
    const std::shared_ptr<Session> probe = table.begin(std::make_shared<ProbeOwner>(), other);
    FUZZ_CHECK(probe != nullptr);  // no session outlived its connection
    table.end(probe);
    FUZZ_CHECK(table.discardAll(1000));
  }
  checkTree(input, true);
  FUZZ_CHECK(openDescriptors() == descriptors);
  for (const char* dir : {"root", "state"}) {
    for (const auto& entry : fs::directory_iterator(sandbox.base / dir)) fs::remove_all(entry.path());
  }
  return 0;
}
