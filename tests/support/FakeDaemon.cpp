#include "support/FakeDaemon.h"

#include <algorithm>
#include <chrono>

#include "support/PairConnector.h"
#include "util/TCPSocket.h"

namespace {

const int kReadTimeoutMs = 10000;
const size_t kMaxString = 1 << 20;
const size_t kChunk = 1 << 16;

const int kGetVersionOld = 0x55333037, kBegin = 0x55333038, kFile = 0x5533303a,
          kCommit = 0x5533303b, kAbort = 0x5533303c, kGetVersionNew = 0x5533303f;

// The peer went away, a read timed out, or the script closes the connection.
// died: the script ends it as a dying process would, closing the descriptor.
struct ConnectionEnded {
  bool died = false;
};

}  // namespace

// One connection's conversation: reads the client's items (recording them)
// and writes the scripted replies.
struct FakeDaemon::Session {
  FakeDaemon& daemon;
  int index;
  TCPSocket& socket;
  Script script;
  bool open = false;  // a begin was accepted on this connection
  long dataBytes = 0;

  std::string readExact(size_t n, bool isData = false) {
    std::string out(n, '\0');
    for (size_t have = 0; have < n;) {
      const int got = socket.read(&out[have], int(std::min(n - have, kChunk)));
      if (got <= 0) throw ConnectionEnded();
      std::lock_guard<std::mutex> lock(daemon.mMutex);
      Connection& c = daemon.mConnections[index];
      c.received.append(&out[have], size_t(got));
      if (isData) c.data.append(&out[have], size_t(got));
      have += size_t(got);
    }
    return out;
  }

  long readInteger(int bytes) {
    unsigned long v = 0;
    for (char c : readExact(size_t(bytes))) v = (v << 8) | static_cast<unsigned char>(c);
    return bytes == 4 ? long(int(unsigned(v))) : long(v);
  }

  std::string readString() {
    const long length = readInteger(4);
    if (length < 0 || size_t(length) > kMaxString) throw ConnectionEnded();
    return readExact(size_t(length));
  }

  void reply(const std::string& bytes) {
    std::this_thread::sleep_for(std::chrono::milliseconds(script.replyDelayMs));
    if (socket.write(bytes.data(), int(bytes.size())) != int(bytes.size())) throw ConnectionEnded();
  }

  // Reads and answers nothing until the daemon stops (at most 15 s).
  [[noreturn]] void stall() {
    for (int i = 0; i < 1500 && !daemon.mStop; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw ConnectionEnded();
  }

  void seen(int code) {
    std::function<void(int)> hook;
    {
      std::lock_guard<std::mutex> lock(daemon.mMutex);
      if (code != kDataReceived) daemon.mConnections[index].codes.push_back(code);
      hook = daemon.mOnMessage;
    }
    if (hook) hook(code);
  }

  void begin() {
    for (long i = 0, count = readInteger(4); i < count; ++i) readString();
    readExact(1);
    seen(kBegin);
    WireBytes out;
    out.i32(script.beginStatus);
    if (script.beginStatus == 3) {
      out.i32(int(script.beginBad.size()));
      for (const auto& [host, code] : script.beginBad) out.str(host).i32(code);
      out.i32(int(script.beginBusy.size()));
      for (const auto& busy : script.beginBusy) out.str(busy);
      out.str(script.beginText);
    }
    open = script.beginStatus == 0 || script.beginStatus == 3;
    reply(out);
  }

  void file() {
    const long size = readInteger(8);
    readString();
    readString();
    readInteger(4);
    seen(kFile);
    if (!open || script.fileStatus == 2) return reply(WireBytes().i32(2));
    if (script.fileStatus != 0) return reply(WireBytes().i32(script.fileStatus).str(script.fileText));
    const long position = std::max(0L, std::min(script.position, size));
    reply(WireBytes().i32(0).i64(position));
    for (long left = size - position; left > 0;) {
      long chunk = std::min<long>(left, long(kChunk));
      if (script.closeAfterDataBytes >= 0) {
        if (dataBytes >= script.closeAfterDataBytes) throw ConnectionEnded{true};
        chunk = std::min(chunk, script.closeAfterDataBytes - dataBytes);
      }
      if (script.stallAfterDataBytes >= 0) {
        if (dataBytes >= script.stallAfterDataBytes) stall();
        chunk = std::min(chunk, script.stallAfterDataBytes - dataBytes);
      }
      readExact(size_t(chunk), true);
      dataBytes += chunk;
      left -= chunk;
    }
    seen(kDataReceived);
    reply(WireBytes().str(script.fileReply));
  }

  // Serves messages until the peer closes or the script ends the connection.
  void run() {
    for (int messages = 0; messages < 100000; ++messages) {
      const int code = int(readInteger(4));
      if (code == kBegin) {
        begin();
      } else if (code == kFile) {
        file();
      } else if (code == kGetVersionNew) {
        readInteger(4);
        readString();
        seen(code);
        const bool ok = script.newHandshakeReply == "OK";
        reply(ok ? WireBytes().str("OK").i32(script.version) : WireBytes().str(script.newHandshakeReply));
        if (!ok) throw ConnectionEnded();
      } else {
        seen(code);
        if (code == kGetVersionOld) reply(WireBytes().i32(script.version));
        else if (code == kCommit && !script.answerCommit) stall();
        else if (code == kCommit) reply(WireBytes().str(""));
        else if (code == kAbort) reply(WireBytes().i32(0));
        else throw ConnectionEnded();
      }
    }
  }
};

FakeDaemon::FakeDaemon(const std::string& address, int port)
    : mAddress(address), mListener(std::make_unique<TCPSocket>()) {
  mListener->listen(address, port);
  mPort = mListener->getListenerPort();
  mAcceptThread = std::thread([this] { acceptLoop(); });
}

FakeDaemon::FakeDaemon(PairConnector& connector, const std::string& address)
    : mAddress(address), mPort(2411), mConnector(&connector) {
  connector.add(hostId(), [this](std::unique_ptr<TCPSocket> socket) { adopt(std::move(socket)); });
}

FakeDaemon::~FakeDaemon() {
  mStop = true;
  if (mConnector) mConnector->remove(hostId());
  if (mAcceptThread.joinable()) mAcceptThread.join();
  {
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto& socket : mSockets) socket->shutdown();
  }
  for (auto& thread : mThreads) thread.join();
}

void FakeDaemon::acceptLoop() {
  while (!mStop) {
    std::unique_ptr<TCPSocket> socket = mListener->accept(50);  // polls mStop
    if (socket) adopt(std::move(socket));
  }
  mListener->close();
}

void FakeDaemon::adopt(std::unique_ptr<TCPSocket> accepted) {
  std::shared_ptr<TCPSocket> socket = std::move(accepted);
  socket->setReadTimeout(kReadTimeoutMs);
  std::lock_guard<std::mutex> lock(mMutex);
  const int index = int(mConnections.size());
  mConnections.emplace_back();
  mSockets.push_back(socket);
  mThreads.emplace_back([this, index, socket] { serve(index, socket); });
}

void FakeDaemon::serve(int index, std::shared_ptr<TCPSocket> socket) {
  Script script;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    script = mScripts.count(index) ? mScripts[index] : mDefault;
  }
  bool died = false;
  try {
    Session{*this, index, *socket, script}.run();
  } catch (const ConnectionEnded& end) {
    died = end.died;
  }
  if (!died) socket->shutdown();
  std::lock_guard<std::mutex> lock(mMutex);
  // Closed under the lock that the destructor's shutdown takes. With the
  // client's bytes still unread, the kernel resets the connection, so that
  // a client blocked sending fails at once.
  if (died) socket->close();
  ++mClosed;
  mClosedCond.notify_all();
}

std::vector<int> FakeDaemon::allCodes() const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<int> codes;
  for (const Connection& c : mConnections) codes.insert(codes.end(), c.codes.begin(), c.codes.end());
  return codes;
}

bool FakeDaemon::waitForClosedConnections(int n, int timeoutMs) const {
  std::unique_lock<std::mutex> lock(mMutex);
  return mClosedCond.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return mClosed >= n; });
}

int FakeDaemon::unusedPort(const std::string& address) {
  TCPSocket probe;
  probe.listen(address, 0);
  return probe.getListenerPort();
}
