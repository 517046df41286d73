#include "hopper/Protocol.h"

#include <algorithm>
#include <cctype>

#include "util/CRC.h"

namespace {

const char kCutMark[] = " [cut]";
const char kOmitted[] = "(further errors omitted)";

}  // namespace

namespace Protocol {

void writeVersionRequest(TCPStream& out) {
  out << int(C2H_NEW_GET_VERSION) << kHopperProtocolVersion << getVersionString();
}

void writeOldVersionRequest(TCPStream& out) { out << int(C2H_GET_VERSION); }

int readVersionRequest(TCPStream& in) {
  int protocol = 0;
  in >> protocol;
  readString(in);  // the peer's version text, for nobody
  return protocol;
}

void writeVersionReply(TCPStream& out) { out << std::string("OK") << kHopperProtocolVersion; }

void writeOldVersionReply(TCPStream& out) { out << kHopperProtocolVersion; }

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

std::string readReply(TCPStream& in, const std::string& host) {
  int length = 0;
  in >> length;
  if (length < 0) throw System::WireLimitError("negative reply length");
  if (size_t(length) <= kMaxReplyText) {
    std::string text(size_t(length), '\0');
    in.read(&text[0], length);
    return text;
  }
  in.ignore(length);  // read past it without keeping it
  return host + ": reply of " + std::to_string(length) + " bytes exceeds the limit of " +
         std::to_string(kMaxReplyText) + " and was dropped";
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

FilePart readFilePart(TCPStream& in) {
  FilePart part;
  part.mInfo = readFileInfo(in);
  part.mSeq = readPosition(in, kMaxFileSize);
  part.mStart = readPosition(in, part.mInfo.mSize);
  part.mCount = readPosition(in, part.mInfo.mSize - part.mStart);
  if (part.mSeq == 0) throw System::WireLimitError("file part without a sequence number");
  return part;
}

int readBlockHeader(TCPStream& in, int64_t remaining, uint32_t& crc) {
  int length = 0;
  int sum = 0;
  in >> length >> sum;
  if (length < 1 || length > kMaxRelayBlock || length > remaining) {
    throw System::WireLimitError("data block of " + std::to_string(length) + " bytes with " +
                                 std::to_string(remaining) + " to come");
  }
  crc = static_cast<uint32_t>(sum);
  return length;
}

FileCheck readFileCheck(TCPStream& in) {
  FileCheck check;
  check.mSeq = readPosition(in, kMaxFileSize);
  check.mSize = readPosition(in, kMaxFileSize);
  int sum = 0;
  in >> sum;
  check.mCRC = static_cast<uint32_t>(sum);
  if (check.mSeq == 0) throw System::WireLimitError("file check without a sequence number");
  return check;
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

int readCode(TCPStream& in) {
  int code = 0;
  in >> code;
  return code;
}

BeginReply readBeginReply(TCPStream& in) {
  BeginReply reply;
  in >> reply.mStatus;
  if (reply.mStatus == BEGIN_SOME_FAILED) {
    BeginResult& failures = reply.mFailures;
    System::readStringIntPairListBounded(in, failures.mBad);
    System::readStringListBounded(in, failures.mBusy);
    failures.mText = readString(in);
  }
  return reply;
}

void readAbortReply(TCPStream& in) { readCode(in); }

RelayMessage readRelayReply(TCPStream& in, const std::string& host) {
  RelayMessage message;
  message.mTag = readCode(in);
  if (message.mTag == RELAY_FILE_ERRORS) {
    message.mSeq = readPosition(in, kMaxFileSize);
    message.mText = readReply(in, host);
  } else if (message.mTag == RELAY_COMMITTED) {
    message.mText = readReply(in, host);
  } else if (message.mTag != RELAY_ABORTED) {
    throw System::WireLimitError("unknown relay reply " + std::to_string(message.mTag));
  }
  return message;
}

LastFile readLastFileReply(TCPStream& in) {
  LastFile last;
  last.mSeq = readPosition(in, kMaxFileSize);
  last.mBytes = readPosition(in, kMaxFileSize);
  return last;
}

AnnouncementReply readAnnouncementReply(TCPStream& in) {
  AnnouncementReply reply;
  in >> reply.mStatus;
  if (reply.mStatus == RESUME_OK) {
    long position = 0;
    in >> position;
    reply.mPosition = position;
  } else if (reply.mStatus != RESUME_NO_SESSION) {
    reply.mText = readString(in);
  }
  return reply;
}

void writeAnnouncementReply(TCPStream& out, const AnnouncementReply& reply) {
  out << reply.mStatus;
  if (reply.mStatus == RESUME_OK) {
    out << long(reply.mPosition);
  } else if (reply.mStatus != RESUME_NO_SESSION) {
    out << reply.mText;
  }
}

void writeCommit(TCPStream& out) { out << int(C2H_COMMIT_UPLOAD); }

void writeAbort(TCPStream& out) { out << int(C2H_ABORT_UPLOAD); }

void writeLastFileRequest(TCPStream& out) { out << H2H_LAST_FILE; }

void writeFileInfo(TCPStream& out, const FileInfo& info) {
  out << int(C2H_RESUME_UPLOAD) << long(info.mSize) << info.mBaseName << info.mRemotePath
      << info.mMode;
}

void writeFilePart(TCPStream& out, const FilePart& part) {
  const FileInfo& info = part.mInfo;
  out << H2H_FILE_PART << long(info.mSize) << info.mBaseName << info.mRemotePath << info.mMode
      << long(part.mSeq) << long(part.mStart) << long(part.mCount);
}

void writeBlock(TCPStream& out, const char* data, size_t n, const uint32_t* crc) {
  const uint32_t sum = crc ? *crc : CRC::crc32c(reinterpret_cast<const unsigned char*>(data), n, 0);
  out << static_cast<int>(n) << static_cast<int>(sum);
  out.write(data, static_cast<std::streamsize>(n));
}

void writeFileCheck(TCPStream& out, const FileCheck& check) {
  out << H2H_FILE_CHECK << long(check.mSeq) << long(check.mSize) << static_cast<int>(check.mCRC);
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

void writeHeadBusy(TCPStream& out) { out << int(BEGIN_HEAD_BUSY); }

void writeReply(TCPStream& out, const std::string& text) { out << text; }

void writeCommitReply(TCPStream& out, const std::string& errors, bool relay) {
  if (relay) out << int(RELAY_COMMITTED);
  out << errors;
}

void writeAbortReply(TCPStream& out, bool relay) { out << int(relay ? RELAY_ABORTED : 0); }

void writeFileErrors(TCPStream& out, int64_t seq, const std::string& errors) {
  out << int(RELAY_FILE_ERRORS) << long(seq) << errors;
}

void writeLastFileReply(TCPStream& out, const LastFile& last) {
  out << long(last.mSeq) << long(last.mBytes);
}

void appendLines(std::string& lines, const std::string& text) {
  const std::string omitted = kOmitted;
  const size_t room = kMaxReplyText - omitted.size() - 1;  // the marker always fits
  std::string::size_type start = 0;
  while (start < text.size()) {
    std::string::size_type end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, std::min(end - start, kMaxReplyLine + 1));
    start = end + 1;
    if (line.size() > kMaxReplyLine) {
      line.replace(kMaxReplyLine - (sizeof kCutMark - 1), std::string::npos, kCutMark);
    }
    if (lines.size() >= omitted.size() &&
        lines.compare(lines.size() - omitted.size(), std::string::npos, omitted) == 0) {
      return;  // already full
    }
    const size_t separator = lines.empty() ? 0 : 1;
    if (lines.size() + separator + line.size() > room) line = omitted;
    if (separator) lines += '\n';
    lines += line;
  }
}

}  // namespace Protocol
