// The binary items of the daemon protocol: big-endian integers, one-byte
// flags and length-prefixed byte strings, with no alignment or padding. A
// message is just the concatenation of its items; nothing here frames it.
//
//   int32            4 bytes, big-endian, two's complement
//   int64            8 bytes, big-endian (high word first)
//   byte / bool      1 byte (a bool reads any non-zero byte as true)
//   small buffer     int32 length N, then N raw bytes
//   large buffer     int64 length N, then N raw bytes
//   set / list       int32 count C, then C small buffers
//   pair list        int32 count C, then C times small buffer and int32
//
// The plain readers trust their peer (a client trusts its daemon): lengths
// are not limited. A server must read through the bounded readers (Wire) at
// the end of this header, which check every length and count before allocating.
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
// Returns the value; on a short read the stream fails and the value is
// unspecified.
int readInt32(std::istream& in);
void writeInt64(std::ostream& out, long value);
long readInt64(std::istream& in);
void writeByte(std::ostream& out, unsigned char value);
// int32 length, then the bytes.
void writeSmallBuf(std::ostream& out, const char* data, int length);
// Reads a small buffer into s. When the length cannot be read s is left
// unchanged; a short read leaves the missing tail as NUL bytes. A negative
// length raises std::length_error from the string.
void readSmallBuf(std::istream& in, std::string& s);
// int64 length, then the bytes.
void writeLargeBuf(std::ostream& out, const char* data, long length);
// (high << 32) + low taken as unsigned: the low half is not sign-extended.
long Int64From2Ints(int high, int low);
// The wire form of a time in seconds since the epoch: unchanged.
long convertTimeToNetFormat(long t);

}  // namespace System

// Items on a TCPStream; each returns the stream so items chain. int is an
// int32 and long an int64 on the wire.
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
// Count, then that many elements read in place; the target is replaced even
// when the stream fails part-way (the stream raises in that case).
TCPStream& operator>>(TCPStream& s, StringList& value);
TCPStream& operator>>(TCPStream& s, StringIntPairList& value);

// The same items with their wire width in the name rather than in the C++
// type of the argument, for message encoders: no cast decides a width; and
// the bounded readers that data from an untrusted peer goes through.
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

// Thrown when a peer announces a length or count outside the allowed range.
class LimitError : public std::runtime_error {
 public:
  explicit LimitError(const std::string& what) : std::runtime_error(what) {}
};

const int kMaxStringLength = 65536;
const int kMaxListCount = 100000;

// A small buffer with 0 <= length <= maxLength checked before anything is
// allocated; a violation throws LimitError and leaves s unchanged. When the
// length cannot be read s is left unchanged.
void getString(std::istream& in, std::string& s, int maxLength = kMaxStringLength);
// A list or set of small buffers whose count and lengths are checked first;
// elements are only allocated as their bytes arrive. Throws LimitError.
void getStringList(std::istream& in, StringList& out, int maxCount = kMaxListCount,
                   int maxLength = kMaxStringLength);
void getStringSet(std::istream& in, std::set<std::string>& out, int maxCount = kMaxListCount,
                  int maxLength = kMaxStringLength);
void getPairList(std::istream& in, StringIntPairList& out, int maxCount = kMaxListCount,
                 int maxLength = kMaxStringLength);

}  // namespace Wire

#endif  // HIVE_UTIL_NETENCODING_H_
