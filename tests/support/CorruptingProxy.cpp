#include "support/CorruptingProxy.h"

#include <vector>

#include "util/TCPSocket.h"

namespace {

const int kPollMs = 50;
const int kConnectMs = 5000;

}  // namespace

CorruptingProxy::CorruptingProxy(const std::string& address, int port, std::string targetAddress,
                                 int targetPort, int64_t flipAfter)
    : mTargetAddress(std::move(targetAddress)),
      mTargetPort(targetPort),
      mFlipAfter(flipAfter),
      mListener(std::make_unique<TCPSocket>()) {
  mListener->listen(address, port);
  mAcceptThread = std::thread([this] { acceptLoop(); });
}

CorruptingProxy::~CorruptingProxy() {
  mStop = true;
  mAcceptThread.join();
  {
    std::lock_guard<std::mutex> lock(mMutex);
    for (auto& socket : mSockets) socket->shutdown();
  }
  for (auto& thread : mThreads) thread.join();
}

void CorruptingProxy::acceptLoop() {
  while (!mStop) {
    std::shared_ptr<TCPSocket> in = mListener->accept(kPollMs);  // polls mStop
    if (!in) continue;
    auto out = std::make_shared<TCPSocket>();
    try {
      out->connect(mTargetAddress, mTargetPort, kConnectMs);
    } catch (const std::exception&) {
      in->shutdown();
      continue;
    }
    std::lock_guard<std::mutex> lock(mMutex);
    mSockets.push_back(in);
    mSockets.push_back(out);
    mThreads.emplace_back([this, in, out] { pump(*in, *out, true); });
    mThreads.emplace_back([this, in, out] { pump(*out, *in, false); });
  }
  mListener->close();
}

void CorruptingProxy::pump(TCPSocket& from, TCPSocket& to, bool corrupt) {
  std::vector<char> buffer(65536);
  int64_t passed = 0;
  while (!mStop) {
    if (!from.isReadable(kPollMs)) continue;
    const int n = from.read(buffer.data(), int(buffer.size()));
    if (n <= 0) break;
    if (corrupt && passed + n > mFlipAfter && !mFlipped.exchange(true)) {
      const int64_t at = passed > mFlipAfter ? 0 : mFlipAfter - passed;
      buffer[size_t(at)] ^= 0x20;
    }
    passed += n;
    if (to.write(buffer.data(), n) != n) break;
  }
  from.shutdown();
  to.shutdown();
}
