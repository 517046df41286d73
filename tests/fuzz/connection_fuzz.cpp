// The daemon's connection handler (Connection::run) over one peer's whole
// byte stream: the input goes into one end of a socket pair whose other end
// the daemon serves, then that side is shut down, and whatever the daemon
// sends back is read and dropped. Any messages in any order: handshakes,
// relay identity, begin (the host lists), file announcements and data, file
// parts, last-file queries, commit, abort.
//
// The process runs in a network namespace of its own with no interface up,
// so every host a begin names is unreachable at once and nothing leaves the
// machine; without one the program says so and exits 77 (the replay test
// counts that as skipped). Root and state directory are fresh temporary
// directories, emptied after each input; only targets under /in are allowed.
//
// After each input: the daemon closed the connection within the bound and
// left no descriptor open; nothing but the root and the state directory
// exists beside each other, only regular files and directories, everything
// under the root lies under /in (but for the staged copy of the target /in
// itself, beside it), and the state directory holds only journals. The
// connection's session, if any, is orphaned: once the table reaps it, a
// begin of another client gets a session (the table holds none), and then
// no staged file and no journal is left.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "hopperd/Connection.h"
#include "tests/fuzz/FuzzCheck.h"

namespace fs = std::filesystem;

namespace {

const int kIoTimeoutMs = 1000;
const auto kBound = std::chrono::seconds(8);  // the daemon must have closed by then

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
    char name[] = "/dev/shm/hive_conn_fuzz_XXXXXX";
    char fallback[] = "/tmp/hive_conn_fuzz_XXXXXX";
    const char* made = ::mkdtemp(name);
    if (made == nullptr) made = ::mkdtemp(fallback);
    FUZZ_CHECK(made != nullptr);
    base = made;
    fs::create_directory(base / "root");
    fs::create_directory(base / "state");
  }
  ~Sandbox() {
    std::error_code ignored;
    fs::remove_all(base, ignored);
  }
  void empty() {
    for (const char* dir : {"root", "state"}) {
      for (const auto& entry : fs::directory_iterator(base / dir)) fs::remove_all(entry.path());
    }
  }
  fs::path base;
} sandbox;

class ProbeOwner : public SessionOwner {
 public:
  void interrupt() override {}
};

size_t openDescriptors() {
  size_t n = 0;
  for (auto it = fs::directory_iterator("/proc/self/fd"); it != fs::directory_iterator(); ++it) ++n;
  return n;
}

// Writes the input, shuts the sending side down and reads until the daemon
// closes; false when that takes longer than the bound.
bool exchange(int fd, const uint8_t* data, size_t size) {
  FUZZ_CHECK(::fcntl(fd, F_SETFL, O_NONBLOCK) == 0);
  const auto until = std::chrono::steady_clock::now() + kBound;
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

bool stagedLeftover(const std::string& name, const std::string& input) {
  const std::string suffix = ".staged";
  return name.size() > suffix.size() && name[0] == '.' &&
         name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0 &&
         input.find(name) == std::string::npos;  // not a target the peer named so
}

void checkTree(const std::string& input, bool sessionsGone) {
  for (auto it = fs::recursive_directory_iterator(sandbox.base);
       it != fs::recursive_directory_iterator(); ++it) {
    const fs::file_status status = it->symlink_status();
    FUZZ_CHECK(fs::is_directory(status) || fs::is_regular_file(status));
    const fs::path rel = it->path().lexically_relative(sandbox.base);
    auto part = rel.begin();
    const std::string top = (part++)->string();
    const std::string name = it->path().filename().string();
    if (top == "state") {
      if (part == rel.end()) continue;
      FUZZ_CHECK(!sessionsGone);
      FUZZ_CHECK(it.depth() == 1 && fs::is_regular_file(status));
      FUZZ_CHECK(name.size() > 8 && name.compare(name.size() - 8, 8, ".journal") == 0);
    } else {
      FUZZ_CHECK(top == "root");
      if (part == rel.end()) continue;
      if (sessionsGone) FUZZ_CHECK(!stagedLeftover(name, input));
      if (part->string() == "in") continue;
      // Else the staged copy of the target /in itself, which lies beside it.
      FUZZ_CHECK(it.depth() == 1 && fs::is_regular_file(status));
      FUZZ_CHECK(name.compare(0, 4, ".in.") == 0 && stagedLeftover(name, input));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t descriptors = openDescriptors();
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
    auto connection = std::make_shared<Connection>(std::make_unique<TCPSocket>(fds[0]), table,
                                                   kIoTimeoutMs);
    std::thread worker([connection] { connection->run(); });
    const bool closed = exchange(fds[1], data, size);
    if (!closed) {
      std::fprintf(stderr, "the daemon kept the connection open past the bound\n");
      std::abort();
    }
    worker.join();
    ::close(fds[1]);
    checkTree(input, false);

    for (int i = 0; i < 4 && table.reap(); ++i) {
    }
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
  sandbox.empty();
  return 0;
}
