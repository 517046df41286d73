// CPU cost of the client's data path. Pushes a 1 GiB file through
// UploadManager to an in-process sink daemon on loopback and reports the
// uploading thread's CPU time (user + system) and wall time, next to a plain
// read()/write() loop pushing the same file to a sink that discards it.
// The sinks run on their own threads, so their CPU time is not counted.
//
// Usage: upload_cpu [MiB]   (default 1024)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "hopper/Protocol.h"
#include "hopper/UploadManager.h"
#include "hopper/hopperMisc.h"
#include "util/TCPSocket.h"

namespace {

const size_t kMiB = 1 << 20;

struct Sample {
  double cpu;
  double wall;
};

double threadCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

template <typename Fn>
Sample measure(Fn fn) {
  const double cpu0 = threadCpuSeconds();
  const auto wall0 = std::chrono::steady_clock::now();
  fn();
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - wall0;
  return {threadCpuSeconds() - cpu0, wall.count()};
}

// A daemon that answers just enough of the protocol (through the protocol
// unit) and discards file data; in raw mode it discards everything until
// the peer closes.
class Sink {
 public:
  explicit Sink(bool raw) : mRaw(raw) {
    mListener.listen("127.0.0.1", 0);
    mThread = std::thread([this] { acceptLoop(); });
  }
  ~Sink() {
    mStop = true;
    mThread.join();
  }
  int port() const { return mListener.getListenerPort(); }

 private:
  void acceptLoop() {
    while (!mStop) {
      std::unique_ptr<TCPSocket> s = mListener.accept(50);
      if (!s) continue;
      s->setReadTimeout(30000);
      TCPStream stream(std::move(s));
      try {
        mRaw ? discard(stream, -1) : serve(stream);
      } catch (const std::exception&) {  // the client closed
      }
    }
  }
  // Reads n bytes (all when n < 0); throws when the peer is gone.
  static void discard(TCPStream& in, long n) {
    std::vector<char> buffer(kMiB);
    for (long left = n; n < 0 || left > 0;) {
      const long want = n < 0 ? long(kMiB) : std::min<long>(left, kMiB);
      if (!in.read(buffer.data(), want) && n >= 0) throw std::runtime_error("closed");
      left -= in.gcount();
    }
  }
  static void serve(TCPStream& s) {
    for (;;) {
      switch (Protocol::readCode(s)) {
        case C2H_NEW_GET_VERSION:
          Protocol::readVersionRequest(s);
          Protocol::writeVersionReply(s);
          break;
        case C2H_BEGIN_UPLOAD: {
          std::vector<std::string> hosts;
          bool stopAgents = false;
          Protocol::readBegin(s, hosts, stopAgents);
          Protocol::writeBeginReply(s, BeginResult());
          break;
        }
        case C2H_RESUME_UPLOAD: {
          const FileInfo info = Protocol::readFileInfo(s);
          Protocol::writeAnnouncementReply(s, AnnouncementReply());
          s.flush();
          discard(s, info.mSize);
          Protocol::writeReply(s, "");
          break;
        }
        case C2H_COMMIT_UPLOAD:
          Protocol::writeCommitReply(s, "", false);
          break;
        default:
          Protocol::writeAbortReply(s, false);
      }
      s.flush();
    }
  }

  bool mRaw;
  TCPSocket mListener;
  std::atomic<bool> mStop{false};
  std::thread mThread;
};

// The peer: the simplest way to move the file, read() into a buffer and
// write() it to the socket.
void plainCopy(const std::string& path, int port) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (file < 0 || sock < 0 || connect(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
    std::perror("plain copy");
    std::exit(1);
  }
  std::vector<char> buffer(UploadManager::kBlockSize);
  for (ssize_t n; (n = read(file, buffer.data(), buffer.size())) > 0;) {
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = write(sock, buffer.data() + done, static_cast<size_t>(n - done));
      if (w <= 0) std::exit(1);
      done += w;
    }
  }
  close(sock);
  close(file);
}

std::string makeFile(const std::string& dir, size_t mib) {
  const std::string path = dir + "/data";
  std::vector<char> block(kMiB);
  FILE* f = std::fopen(path.c_str(), "wb");
  for (size_t m = 0; f && m < mib; ++m) {
    for (size_t i = 0; i < kMiB; ++i) block[i] = static_cast<char>((i * 31) ^ m);
    std::fwrite(block.data(), 1, kMiB, f);
  }
  if (!f || std::fclose(f) != 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
  return path;
}

}  // namespace

int main(int argc, char** argv) {
  const size_t mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1024;
  char dirName[] = "/tmp/hc_upload_cpu.XXXXXX";
  if (!mkdtemp(dirName)) return 1;
  const std::string path = makeFile(dirName, mib);
  Sink protocolSink(false), rawSink(true);
  const IPtoNameMap hosts = {{"127.0.0.1:" + std::to_string(protocolSink.port()), "sink"}};

  std::printf("%zu MiB over loopback; CPU = user + system of the sending thread\n", mib);
  std::printf("%-14s %10s %10s %10s\n", "round", "cpu s", "wall s", "MiB/s");
  Sample best[2] = {{1e9, 1e9}, {1e9, 1e9}};
  for (int round = 1; round <= 3; ++round) {
    const Sample plain = measure([&] { plainCopy(path, rawSink.port()); });
    std::ostringstream out, err;
    bool ok = false;
    const Sample upload = measure([&] {
      UploadManager manager(hosts, false, false, -1, System::OS_LINUX, out, err);
      ok = manager.upload(path, "/bench/data");
    });
    if (!ok) {
      std::fprintf(stderr, "upload failed: %s\n", err.str().c_str());
      return 1;
    }
    const Sample samples[2] = {plain, upload};
    for (int k = 0; k < 2; ++k) {
      std::printf("%-14s %10.3f %10.3f %10.0f\n", k ? "UploadManager" : "read/write", samples[k].cpu,
                  samples[k].wall, mib / samples[k].wall);
      best[k] = {std::min(best[k].cpu, samples[k].cpu), std::min(best[k].wall, samples[k].wall)};
    }
  }
  std::printf("best cpu: read/write %.3f s, UploadManager %.3f s, ratio %.2f\n", best[0].cpu,
              best[1].cpu, best[1].cpu / best[0].cpu);
  std::filesystem::remove_all(dirName);
  return 0;
}
