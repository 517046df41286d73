#include "hopperd/Protocol.h"

#include <algorithm>
#include <cctype>

namespace Protocol {

std::string readString(TCPStream& in) {
  std::string s;
  System::readSmallBufBounded(in, s);
  return s;
}

int64_t readPosition(TCPStream& in, int64_t max) {
  long value = 0;
  in >> value;
  if (value < 0 || value > max) {
    throw System::WireLimitError("size or position " + std::to_string(value) + " out of range");
  }
  return value;
}

FileInfo readFileInfo(TCPStream& in) {
  FileInfo info;
  info.mSize = readPosition(in, kMaxFileSize);
  info.mBaseName = readString(in);
  info.mRemotePath = readString(in);
  int mode = 0;
  in >> mode;
  info.mMode = mode & 0777;
  return info;
}

void readBegin(TCPStream& in, std::vector<std::string>& hosts, bool& stopAgents) {
  std::set<std::string> set;
  System::readStringSetBounded(in, set);
  bool dontStop = true;
  in >> dontStop;
  hosts.assign(set.begin(), set.end());
  stopAgents = !dontStop;
}

RelayIdentity readRelayIdentity(TCPStream& in) {
  RelayIdentity identity;
  identity.mClientAddress = readString(in);
  identity.mUploadId = readString(in);
  identity.mSender = readString(in);
  // The identifier names journal and staged files: letters and digits only.
  const std::string& id = identity.mUploadId;
  if (id.empty() || id.size() > 64 ||
      !std::all_of(id.begin(), id.end(), [](char c) { return std::isalnum(uint8_t(c)); })) {
    throw System::WireLimitError("invalid upload identifier");
  }
  return identity;
}

void readBeginFailures(TCPStream& in, BeginResult& out) {
  StringIntPairList bad;
  StringList busy;
  System::readStringIntPairListBounded(in, bad);
  System::readStringListBounded(in, busy);
  const std::string text = readString(in);
  out.mBad.splice(out.mBad.end(), bad);
  out.mBusy.splice(out.mBusy.end(), busy);
  appendLines(out.mText, text);
}

void writeFileInfo(TCPStream& out, const FileInfo& info) {
  out << int(C2H_RESUME_UPLOAD) << long(info.mSize) << info.mBaseName << info.mRemotePath
      << info.mMode;
}

void writeBegin(TCPStream& out, const std::vector<std::string>& hosts, bool stopAgents) {
  out << int(C2H_BEGIN_UPLOAD) << std::set<std::string>(hosts.begin(), hosts.end())
      << !stopAgents;
}

void writeRelayIdentity(TCPStream& out, const RelayIdentity& identity) {
  out << H2H_RELAY_IDENTITY << identity.mClientAddress << identity.mUploadId
      << identity.mSender;
}

void writeBeginReply(TCPStream& out, const BeginResult& result) {
  if (result.empty()) {
    out << int(BEGIN_OK);
    return;
  }
  out << int(BEGIN_SOME_FAILED) << int(result.mBad.size());
  for (const auto& bad : result.mBad) out << bad.first << bad.second;
  out << int(result.mBusy.size());
  for (const std::string& busy : result.mBusy) out << busy;
  out << result.mText;
}

void appendLines(std::string& lines, const std::string& text) {
  if (text.empty()) return;
  if (!lines.empty() && lines.back() != '\n') lines += '\n';
  lines += text;
}

}  // namespace Protocol
