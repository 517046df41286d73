#include "hopper/hopperMisc.h"

#include <ctime>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include "hopper/Protocol.h"
#include "util/Logger.h"
#include "util/NetEncoding.h"
#include "util/Ticks.h"
#include "util/Timer.h"

namespace {

const char* const kRelease = "1.0.0";
const char* const kReleaseShort = "1.0";
const int kBuildNumber = 1001;

const char* const kProductNotice =
    "File distribution for build clusters: hivecopy uploads, hopperd relays.\n"
    "This software is provided as is, without warranty of any kind.\n";

// The compile time as YYYY.MM.DD_HH:MM:SS.
std::string buildStamp() {
  std::tm when{};
  std::istringstream(__DATE__ " " __TIME__) >> std::get_time(&when, "%b %d %Y %H:%M:%S");
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y.%m.%d_%H:%M:%S", &when);
  return stamp;
}

// Connects, sends a version request and waits for the reply to start
// within what is left of timeoutMs; throws timedOut when it does not.
void requestVersion(TCPStream& stream, const std::string& host, int port, int timeoutMs,
                    void (*writeRequest)(TCPStream&), const char* timedOut) {
  Timer timer;
  timer.start();
  stream.connect(host, port, timeoutMs);
  writeRequest(stream);
  stream.flush();
  timer.stop();
  const int remaining = timeoutMs - static_cast<int>(timer.totalSeconds() * 1000);
  if (remaining <= 0 || !stream.isReadable(remaining)) throw std::runtime_error(timedOut);
}

}  // namespace

std::string getVersionString() {
  return std::string(kRelease) + "." + std::to_string(kBuildNumber) + ", build build_" +
         kReleaseShort + "_" + std::to_string(kBuildNumber) + "_OPT_" + buildStamp() +
         ", protocol " + std::to_string(kHopperProtocolVersion) + "\n" + kProductNotice;
}

int connectToHopperNew(TCPStream& stream, const std::string& host, int port, int timeoutMs) {
  requestVersion(stream, host, port, timeoutMs, Protocol::writeVersionRequest,
                 "Handshake timed out.");
  if (!stream.socket().isGood()) {
    stream.close();
    return -1;
  }
  const std::string reply = Protocol::readString(stream);
  if (reply != "OK") {
    HC_LOG_INFO("Attempting to connect to server " << host
                << " with C2H_NEW_GET_VERSION.  Server replied with " << reply
                << " Probably an older version server " << ", but expected protocol version "
                << kHopperProtocolVersion);
    stream.close();
    return -1;
  }
  return Wire::getInt32(stream);
}

int connectToHopperOld(TCPStream& stream, const std::string& host, int port, int timeoutMs) {
  requestVersion(stream, host, port, timeoutMs, Protocol::writeOldVersionRequest,
                 "Handshake timed out for getting server version.");
  return Wire::getInt32(stream);
}

int connectToHopper(TCPStream& stream, const std::string& host, int port, int timeoutMs) {
  // A peer that never finishes its reply must not hold the handshake.
  TCPSocket& socket = stream.socket();
  const Ticks kept = socket.getDeadline();
  const Ticks limit = Ticks::currentTime() + Ticks(int64_t(timeoutMs) * 2 * 1000000);
  if (kept == Ticks() || limit < kept) socket.setDeadline(limit);
  struct RestoreDeadline {
    TCPSocket& mSocket;
    Ticks mKept;
    ~RestoreDeadline() { mSocket.setDeadline(mKept); }
  } restore{socket, kept};
  const int version = connectToHopperNew(stream, host, port, timeoutMs);
  return version != -1 ? version : connectToHopperOld(stream, host, port, timeoutMs);
}

bool acceptedVersion(int version) { return version == 4 || version == kHopperProtocolVersion; }
