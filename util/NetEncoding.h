// The binary items of the daemon protocol, with no alignment or padding:
// int32 and int64 big-endian; byte and bool one byte (any non-zero byte reads
// true); small and large buffers an int32 or int64 length, then the bytes;
// sets and lists an int32 count, then the elements.
//
// The plain readers trust their peer (a client trusts its daemon). A server
// reads through the bounded readers (Wire), which check every length and
// count before allocating.
#ifndef HIVE_UTIL_NETENCODING_H_
#define HIVE_UTIL_NETENCODING_H_

#include <cstdint>
#include <istream>
#include <list>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "util/TCPStream.h"

// Host lists as they travel: names, and (name, code) pairs.
using StringList = std::list<std::string>;
using StringIntPairList = std::list<std::pair<std::string, int>>;

namespace System {

void writeInt32(std::ostream& out, int value);
// On a short read the stream fails and the value is unspecified.
int readInt32(std::istream& in);
void writeInt64(std::ostream& out, long value);
long readInt64(std::istream& in);
void writeByte(std::ostream& out, unsigned char value);
// int32 length, then the bytes.
void writeSmallBuf(std::ostream& out, const char* data, int length);
// Reads a small buffer into s; s is unchanged when the length cannot be read,
// a short read leaves NUL bytes, a negative length raises std::length_error.
void readSmallBuf(std::istream& in, std::string& s);
// int64 length, then the bytes.
void writeLargeBuf(std::ostream& out, const char* data, long length);
// (high << 32) + low taken as unsigned: the low half is not sign-extended.
long Int64From2Ints(int high, int low);
// The wire form of a time in seconds since the epoch: unchanged.
long convertTimeToNetFormat(long t);

}  // namespace System

// Items on a TCPStream, chaining; int is an int32 and long an int64.
TCPStream& operator<<(TCPStream& s, int value);
TCPStream& operator>>(TCPStream& s, int& value);
TCPStream& operator<<(TCPStream& s, long value);
TCPStream& operator>>(TCPStream& s, long& value);
TCPStream& operator<<(TCPStream& s, bool value);
TCPStream& operator>>(TCPStream& s, bool& value);
// Small buffers: the string's bytes, or the characters before the NUL.
TCPStream& operator<<(TCPStream& s, const std::string& value);
TCPStream& operator<<(TCPStream& s, const char* value);
TCPStream& operator>>(TCPStream& s, std::string& value);
// Count, then the elements in ascending order.
TCPStream& operator<<(TCPStream& s, const std::set<std::string>& value);
// Count, then the elements; the target is replaced even when the stream
// fails part-way (and raises).
TCPStream& operator>>(TCPStream& s, StringList& value);
TCPStream& operator>>(TCPStream& s, StringIntPairList& value);

// The same items with their wire width in the name, so that no C++ type
// decides a width; and the bounded readers for an untrusted peer.
namespace Wire {

void putInt32(TCPStream& out, int32_t value);
void putInt64(TCPStream& out, int64_t value);
void putBool(TCPStream& out, bool value);
void putString(TCPStream& out, const std::string& value);
// Count, then the elements in ascending order.
void putStrings(TCPStream& out, const std::set<std::string>& value);
int32_t getInt32(TCPStream& in);
int64_t getInt64(TCPStream& in);
bool getBool(TCPStream& in);

// A length or count from the peer outside the allowed range.
class LimitError : public std::runtime_error {
 public:
  explicit LimitError(const std::string& what) : std::runtime_error(what) {}
};

const int kMaxStringLength = 65536;
const int kMaxListCount = 100000;

// A small buffer of at most maxLength bytes; otherwise LimitError, and s
// unchanged (as when the length cannot be read).
void getString(std::istream& in, std::string& s, int maxLength = kMaxStringLength);
// Lists and sets whose count and lengths are checked before allocating.
void getStringList(std::istream& in, StringList& out, int maxCount = kMaxListCount,
                   int maxLength = kMaxStringLength);
void getStringSet(std::istream& in, std::set<std::string>& out, int maxCount = kMaxListCount,
                  int maxLength = kMaxStringLength);
void getPairList(std::istream& in, StringIntPairList& out, int maxCount = kMaxListCount,
                 int maxLength = kMaxStringLength);

}  // namespace Wire

#endif  // HIVE_UTIL_NETENCODING_H_
