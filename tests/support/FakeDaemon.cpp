#include "support/FakeDaemon.h"

#include <algorithm>
#include <chrono>

#include "util/TCPSocket.h"

namespace {

const int kReadTimeoutMs = 10000;
const int kAcceptPollMs = 50;
const size_t kMaxString = 1 << 20;
const size_t kChunk = 1 << 16;

const int kGetVersionOld = 0x55333037;
const int kBegin = 0x55333038;
const int kFile = 0x5533303a;
const int kCommit = 0x5533303b;
const int kAbort = 0x5533303c;
const int kGetVersionNew = 0x5533303f;

// The peer went away, a read timed out, or the script closes the connection.
struct ConnectionEnded {};

}  // namespace

WireBytes& WireBytes::put(unsigned long v, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) mBytes += static_cast<char>(v >> shift);
  return *this;
}

WireBytes& WireBytes::i32(int v) { return put(static_cast<unsigned>(v), 4); }

WireBytes& WireBytes::i64(long v) { return put(static_cast<unsigned long>(v), 8); }

WireBytes& WireBytes::flag(bool v) { return put(v ? 1 : 0, 1); }

WireBytes& WireBytes::str(const std::string& s) {
  i32(static_cast<int>(s.size()));
  return raw(s);
}

WireBytes& WireBytes::raw(const std::string& s) {
  mBytes += s;
  return *this;
}

// One connection's conversation: reads the client's items (recording them)
// and writes the scripted replies.
struct FakeDaemon::Session {
  FakeDaemon& daemon;
  int index;
  TCPSocket& socket;
  Script script;
  bool open = false;  // a begin was accepted on this connection
  long dataBytes = 0;

  void record(const char* bytes, size_t n, bool isData) {
    std::lock_guard<std::mutex> lock(daemon.mMutex);
    Connection& c = daemon.mConnections[index];
    c.received.append(bytes, n);
    if (isData) c.data.append(bytes, n);
  }

  std::string readExact(size_t n, bool isData = false) {
    std::string out(n, '\0');
    size_t have = 0;
    while (have < n) {
      const int chunk = static_cast<int>(std::min(n - have, kChunk));
      const int got = socket.read(&out[have], chunk);
      if (got <= 0) throw ConnectionEnded();
      record(&out[have], static_cast<size_t>(got), isData);
      have += static_cast<size_t>(got);
    }
    return out;
  }

  long readInteger(int bytes) {
    const std::string b = readExact(static_cast<size_t>(bytes));
    unsigned long v = 0;
    for (char c : b) v = (v << 8) | static_cast<unsigned char>(c);
    return bytes == 4 ? static_cast<int>(static_cast<unsigned>(v)) : static_cast<long>(v);
  }

  std::string readString() {
    const long length = readInteger(4);
    if (length < 0 || static_cast<size_t>(length) > kMaxString) throw ConnectionEnded();
    return readExact(static_cast<size_t>(length));
  }

  void reply(const std::string& bytes) {
    std::this_thread::sleep_for(std::chrono::milliseconds(script.replyDelayMs));
    const int n = static_cast<int>(bytes.size());
    if (socket.write(bytes.data(), n) != n) throw ConnectionEnded();
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

  void newHandshake() {
    readInteger(4);
    readString();
    seen(kGetVersionNew);
    if (script.newHandshakeReply != "OK") {
      reply(WireBytes().str(script.newHandshakeReply));
      throw ConnectionEnded();
    }
    reply(WireBytes().str("OK").i32(script.version));
  }

  void begin() {
    const long count = readInteger(4);
    for (long i = 0; i < count; ++i) readString();
    readExact(1);
    seen(kBegin);
    WireBytes out;
    out.i32(script.beginStatus);
    if (script.beginStatus == 3) {
      out.i32(static_cast<int>(script.beginBad.size()));
      for (const auto& bad : script.beginBad) out.str(bad.first).i32(bad.second);
      out.i32(static_cast<int>(script.beginBusy.size()));
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
      long chunk = std::min<long>(left, static_cast<long>(kChunk));
      if (script.closeAfterDataBytes >= 0) {
        if (dataBytes >= script.closeAfterDataBytes) throw ConnectionEnded();
        chunk = std::min(chunk, script.closeAfterDataBytes - dataBytes);
      }
      readExact(static_cast<size_t>(chunk), true);
      dataBytes += chunk;
      left -= chunk;
    }
    seen(kDataReceived);
    reply(WireBytes().str(script.fileReply));
  }

  // Serves messages until the peer closes or the script ends the connection.
  void run() {
    for (int messages = 0; messages < 100000; ++messages) {
      const int code = static_cast<int>(readInteger(4));
      if (code == kGetVersionNew) {
        newHandshake();
      } else if (code == kBegin) {
        begin();
      } else if (code == kFile) {
        file();
      } else {
        seen(code);
        if (code == kGetVersionOld) reply(WireBytes().i32(script.version));
        else if (code == kCommit) reply(WireBytes().str(script.commitReply));
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

FakeDaemon::~FakeDaemon() {
  mStop = true;
  mAcceptThread.join();
  {
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto& socket : mSockets) socket->shutdown();
  }
  for (auto& thread : mThreads) thread.join();
}

void FakeDaemon::acceptLoop() {
  while (!mStop) {
    std::unique_ptr<TCPSocket> accepted = mListener->accept(kAcceptPollMs);
    if (!accepted) continue;
    accepted->setReadTimeout(kReadTimeoutMs);
    std::shared_ptr<TCPSocket> socket(std::move(accepted));
    int index;
    {
      std::lock_guard<std::mutex> lock(mMutex);
      index = static_cast<int>(mConnections.size());
      mConnections.emplace_back();
      mSockets.push_back(socket);
    }
    mThreads.emplace_back([this, index, socket] { serve(index, socket); });
  }
  mListener->close();
}

void FakeDaemon::serve(int index, std::shared_ptr<TCPSocket> socket) {
  Session session{*this, index, *socket, scriptFor(index)};
  try {
    session.run();
  } catch (const ConnectionEnded&) {
  }
  socket->shutdown();
  std::lock_guard<std::mutex> lock(mMutex);
  ++mClosed;
  mClosedCond.notify_all();
}

FakeDaemon::Script FakeDaemon::scriptFor(int index) const {
  std::lock_guard<std::mutex> lock(mMutex);
  const auto it = mScripts.find(index);
  return it == mScripts.end() ? mDefault : it->second;
}

void FakeDaemon::setScript(const Script& script) {
  std::lock_guard<std::mutex> lock(mMutex);
  mDefault = script;
}

void FakeDaemon::setScriptFor(int index, const Script& script) {
  std::lock_guard<std::mutex> lock(mMutex);
  mScripts[index] = script;
}

void FakeDaemon::setOnMessage(std::function<void(int code)> hook) {
  std::lock_guard<std::mutex> lock(mMutex);
  mOnMessage = std::move(hook);
}

std::string FakeDaemon::hostId() const { return mAddress + ":" + std::to_string(mPort); }

int FakeDaemon::connectionCount() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return static_cast<int>(mConnections.size());
}

FakeDaemon::Connection FakeDaemon::connection(int index) const {
  std::lock_guard<std::mutex> lock(mMutex);
  return index < static_cast<int>(mConnections.size()) ? mConnections[index] : Connection();
}

std::vector<int> FakeDaemon::allCodes() const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<int> codes;
  for (const Connection& c : mConnections) codes.insert(codes.end(), c.codes.begin(), c.codes.end());
  return codes;
}

bool FakeDaemon::waitForClosedConnections(int n, int timeoutMs) const {
  std::unique_lock<std::mutex> lock(mMutex);
  return mClosedCond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return mClosed >= n; });
}

int FakeDaemon::unusedPort(const std::string& address) {
  TCPSocket probe;
  probe.listen(address, 0);
  return probe.getListenerPort();
}
