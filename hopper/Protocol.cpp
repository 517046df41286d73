#include "hopper/Protocol.h"

#include <algorithm>
#include <cctype>

#include "util/CRC.h"

namespace {

const char kCutMark[] = " [cut]";
const char kOmitted[] = "(further errors omitted)";

// Size, base name, remote path and mode: the items of an announcement.
void putFileItems(TCPStream& out, const FileInfo& info) {
  Wire::putInt64(out, info.mSize);
  Wire::putString(out, info.mBaseName);
  Wire::putString(out, info.mRemotePath);
  Wire::putInt32(out, info.mMode);
}

}  // namespace

namespace Protocol {

void writeVersionRequest(TCPStream& out) {
  Wire::putInt32(out, C2H_NEW_GET_VERSION);
  Wire::putInt32(out, kHopperProtocolVersion);
  Wire::putString(out, getVersionString());
}

void writeOldVersionRequest(TCPStream& out) { Wire::putInt32(out, C2H_GET_VERSION); }

int readVersionRequest(TCPStream& in) {
  const int protocol = Wire::getInt32(in);
  readString(in);  // the peer's version text, for nobody
  return protocol;
}

void writeVersionReply(TCPStream& out) {
  Wire::putString(out, "OK");
  Wire::putInt32(out, kHopperProtocolVersion);
}

void writeOldVersionReply(TCPStream& out) { Wire::putInt32(out, kHopperProtocolVersion); }

std::string readString(TCPStream& in) {
  std::string s;
  Wire::getString(in, s);
  return s;
}

int64_t readPosition(TCPStream& in, int64_t max) {
  const int64_t value = Wire::getInt64(in);
  if (value < 0 || value > max) {
    throw Wire::LimitError("size or position " + std::to_string(value) + " out of range");
  }
  return value;
}

std::string readReply(TCPStream& in, const std::string& host) {
  const int length = Wire::getInt32(in);
  if (length < 0) throw Wire::LimitError("negative reply length");
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
  info.mMode = Wire::getInt32(in) & 0777;
  return info;
}

FilePart readFilePart(TCPStream& in) {
  FilePart part;
  part.mInfo = readFileInfo(in);
  part.mSeq = readPosition(in, kMaxFileSize);
  part.mStart = readPosition(in, part.mInfo.mSize);
  part.mCount = readPosition(in, part.mInfo.mSize - part.mStart);
  if (part.mSeq == 0) throw Wire::LimitError("file part without a sequence number");
  return part;
}

int readBlockHeader(TCPStream& in, int64_t remaining, uint32_t& crc) {
  const int length = Wire::getInt32(in);
  crc = static_cast<uint32_t>(Wire::getInt32(in));
  if (length < 1 || length > kMaxRelayBlock || length > remaining) {
    throw Wire::LimitError("data block of " + std::to_string(length) + " bytes with " +
                                 std::to_string(remaining) + " to come");
  }
  return length;
}

FileCheck readFileCheck(TCPStream& in) {
  FileCheck check;
  check.mSeq = readPosition(in, kMaxFileSize);
  check.mSize = readPosition(in, kMaxFileSize);
  check.mCRC = static_cast<uint32_t>(Wire::getInt32(in));
  if (check.mSeq == 0) throw Wire::LimitError("file check without a sequence number");
  return check;
}

void readBegin(TCPStream& in, std::vector<std::string>& hosts, bool& stopAgents) {
  std::set<std::string> set;
  Wire::getStringSet(in, set);
  stopAgents = !Wire::getBool(in);
  hosts.assign(set.begin(), set.end());
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
    throw Wire::LimitError("invalid upload identifier");
  }
  return identity;
}

int readCode(TCPStream& in) { return Wire::getInt32(in); }

BeginReply readBeginReply(TCPStream& in) {
  BeginReply reply;
  reply.mStatus = Wire::getInt32(in);
  if (reply.mStatus == BEGIN_SOME_FAILED) {
    BeginResult& failures = reply.mFailures;
    Wire::getPairList(in, failures.mBad);
    Wire::getStringList(in, failures.mBusy);
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
    throw Wire::LimitError("unknown relay reply " + std::to_string(message.mTag));
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
  reply.mStatus = Wire::getInt32(in);
  if (reply.mStatus == RESUME_OK) {
    reply.mPosition = Wire::getInt64(in);
  } else if (reply.mStatus != RESUME_NO_SESSION) {
    reply.mText = readString(in);
  }
  return reply;
}

void writeAnnouncementReply(TCPStream& out, const AnnouncementReply& reply) {
  Wire::putInt32(out, reply.mStatus);
  if (reply.mStatus == RESUME_OK) {
    Wire::putInt64(out, reply.mPosition);
  } else if (reply.mStatus != RESUME_NO_SESSION) {
    Wire::putString(out, reply.mText);
  }
}

void writeCommit(TCPStream& out) { Wire::putInt32(out, C2H_COMMIT_UPLOAD); }

void writeAbort(TCPStream& out) { Wire::putInt32(out, C2H_ABORT_UPLOAD); }

void writeLastFileRequest(TCPStream& out) { Wire::putInt32(out, H2H_LAST_FILE); }

void writeFileInfo(TCPStream& out, const FileInfo& info) {
  Wire::putInt32(out, C2H_RESUME_UPLOAD);
  putFileItems(out, info);
}

void writeFilePart(TCPStream& out, const FilePart& part) {
  Wire::putInt32(out, H2H_FILE_PART);
  putFileItems(out, part.mInfo);
  Wire::putInt64(out, part.mSeq);
  Wire::putInt64(out, part.mStart);
  Wire::putInt64(out, part.mCount);
}

void writeBlock(TCPStream& out, const char* data, size_t n, const uint32_t* crc) {
  const uint32_t sum = crc ? *crc : CRC::crc32c(reinterpret_cast<const unsigned char*>(data), n, 0);
  Wire::putInt32(out, static_cast<int32_t>(n));
  Wire::putInt32(out, static_cast<int32_t>(sum));
  out.write(data, static_cast<std::streamsize>(n));
}

void writeFileCheck(TCPStream& out, const FileCheck& check) {
  Wire::putInt32(out, H2H_FILE_CHECK);
  Wire::putInt64(out, check.mSeq);
  Wire::putInt64(out, check.mSize);
  Wire::putInt32(out, static_cast<int32_t>(check.mCRC));
}

void writeBegin(TCPStream& out, const std::vector<std::string>& hosts, bool stopAgents) {
  Wire::putInt32(out, C2H_BEGIN_UPLOAD);
  Wire::putStrings(out, std::set<std::string>(hosts.begin(), hosts.end()));
  Wire::putBool(out, !stopAgents);
}

void writeRelayIdentity(TCPStream& out, const RelayIdentity& identity) {
  Wire::putInt32(out, H2H_RELAY_IDENTITY);
  Wire::putString(out, identity.mClientAddress);
  Wire::putString(out, identity.mUploadId);
  Wire::putString(out, identity.mSender);
}

void writeBeginReply(TCPStream& out, const BeginResult& result) {
  if (result.empty()) {
    Wire::putInt32(out, BEGIN_OK);
    return;
  }
  Wire::putInt32(out, BEGIN_SOME_FAILED);
  Wire::putInt32(out, static_cast<int32_t>(result.mBad.size()));
  for (const auto& bad : result.mBad) {
    Wire::putString(out, bad.first);
    Wire::putInt32(out, bad.second);
  }
  Wire::putInt32(out, static_cast<int32_t>(result.mBusy.size()));
  for (const std::string& busy : result.mBusy) Wire::putString(out, busy);
  Wire::putString(out, result.mText);
}

void writeHeadBusy(TCPStream& out) { Wire::putInt32(out, BEGIN_HEAD_BUSY); }

void writeReply(TCPStream& out, const std::string& text) { Wire::putString(out, text); }

void writeCommitReply(TCPStream& out, const std::string& errors, bool relay) {
  if (relay) Wire::putInt32(out, RELAY_COMMITTED);
  Wire::putString(out, errors);
}

void writeAbortReply(TCPStream& out, bool relay) { Wire::putInt32(out, relay ? RELAY_ABORTED : 0); }

void writeFileErrors(TCPStream& out, int64_t seq, const std::string& errors) {
  Wire::putInt32(out, RELAY_FILE_ERRORS);
  Wire::putInt64(out, seq);
  Wire::putString(out, errors);
}

void writeLastFileReply(TCPStream& out, const LastFile& last) {
  Wire::putInt64(out, last.mSeq);
  Wire::putInt64(out, last.mBytes);
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
