#include "util/NetEncoding.h"

#include <cstdint>
#include <cstring>

namespace System {

namespace {

uint32_t readBE32(std::istream& in) {
  unsigned char b[4] = {0, 0, 0, 0};
  in.read(reinterpret_cast<char*>(b), 4);
  return (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
}

// A count or length outside [0, limit] from an untrusted peer.
void checkRange(int value, int limit, const char* what) {
  if (value < 0 || value > limit) {
    throw Wire::LimitError(std::string(what) + " " + std::to_string(value) +
                           " outside the allowed range 0.." + std::to_string(limit));
  }
}

// Reads n bytes into s; a negative n becomes a size beyond max_size, which
// raises std::length_error.
void readBytes(std::istream& in, std::string& s, int n) {
  if (n == 0) {
    s.clear();
    return;
  }
  s.assign(static_cast<size_t>(n), '\0');
  in.read(&s[0], n);
}

}  // namespace

void writeInt32(std::ostream& out, int value) {
  const uint32_t v = static_cast<uint32_t>(value);
  const char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                     static_cast<char>(v >> 8), static_cast<char>(v)};
  out.write(b, 4);
}

int readInt32(std::istream& in) { return static_cast<int>(readBE32(in)); }

void writeInt64(std::ostream& out, long value) {
  const uint64_t v = static_cast<uint64_t>(value);
  writeInt32(out, static_cast<int>(static_cast<uint32_t>(v >> 32)));
  writeInt32(out, static_cast<int>(static_cast<uint32_t>(v)));
}

long readInt64(std::istream& in) {
  const int high = readInt32(in);
  const int low = readInt32(in);
  return Int64From2Ints(high, low);
}

void writeByte(std::ostream& out, unsigned char value) { out.put(static_cast<char>(value)); }

void writeSmallBuf(std::ostream& out, const char* data, int length) {
  writeInt32(out, length);
  if (length > 0) out.write(data, length);
}

void readSmallBuf(std::istream& in, std::string& s) {
  const int length = readInt32(in);
  if (in.fail()) return;  // also covers bad: the target stays as it was
  readBytes(in, s, length);
}

void writeLargeBuf(std::ostream& out, const char* data, long length) {
  writeInt64(out, length);
  if (length > 0) out.write(data, length);
}

long Int64From2Ints(int high, int low) {
  const uint64_t v = (uint64_t(uint32_t(high)) << 32) | uint32_t(low);
  return static_cast<long>(v);
}

long convertTimeToNetFormat(long t) { return t; }

}  // namespace System

namespace {

// A trusted list: count default elements, read in place, so the target is
// replaced even when the stream raises part-way.
template <typename List, typename ReadElement>
void readTrustedList(TCPStream& s, List& value, ReadElement readElement) {
  const int count = System::readInt32(s);
  if (count < 0) throw std::length_error("negative list count");
  value = List(static_cast<size_t>(count));
  for (auto& element : value) readElement(element);
}

}  // namespace

TCPStream& operator<<(TCPStream& s, int value) {
  System::writeInt32(s, value);
  return s;
}

TCPStream& operator>>(TCPStream& s, int& value) {
  value = System::readInt32(s);
  return s;
}

TCPStream& operator<<(TCPStream& s, long value) {
  System::writeInt64(s, value);
  return s;
}

TCPStream& operator>>(TCPStream& s, long& value) {
  value = System::readInt64(s);
  return s;
}

TCPStream& operator<<(TCPStream& s, bool value) {
  System::writeByte(s, value ? 1 : 0);
  return s;
}

TCPStream& operator>>(TCPStream& s, bool& value) {
  char byte = 0;
  s.read(&byte, 1);
  value = byte != 0;
  return s;
}

TCPStream& operator<<(TCPStream& s, const std::string& value) {
  System::writeSmallBuf(s, value.data(), static_cast<int>(value.size()));
  return s;
}

TCPStream& operator<<(TCPStream& s, const char* value) {
  System::writeSmallBuf(s, value, static_cast<int>(std::strlen(value)));
  return s;
}

TCPStream& operator>>(TCPStream& s, std::string& value) {
  System::readSmallBuf(s, value);
  return s;
}

TCPStream& operator<<(TCPStream& s, const std::set<std::string>& value) {
  System::writeInt32(s, static_cast<int>(value.size()));
  for (const std::string& element : value) s << element;
  return s;
}

TCPStream& operator>>(TCPStream& s, StringList& value) {
  readTrustedList(s, value, [&s](std::string& element) { System::readSmallBuf(s, element); });
  return s;
}

TCPStream& operator>>(TCPStream& s, StringIntPairList& value) {
  readTrustedList(s, value, [&s](std::pair<std::string, int>& element) {
    System::readSmallBuf(s, element.first);
    element.second = System::readInt32(s);
  });
  return s;
}

namespace Wire {

void putInt32(TCPStream& out, int32_t value) { System::writeInt32(out, value); }

void putInt64(TCPStream& out, int64_t value) { System::writeInt64(out, static_cast<long>(value)); }

void putBool(TCPStream& out, bool value) { System::writeByte(out, value ? 1 : 0); }

void putString(TCPStream& out, const std::string& value) { out << value; }

void putStrings(TCPStream& out, const std::set<std::string>& value) { out << value; }

int32_t getInt32(TCPStream& in) { return System::readInt32(in); }

int64_t getInt64(TCPStream& in) { return System::readInt64(in); }

void getString(std::istream& in, std::string& s, int maxLength) {
  const int length = System::readInt32(in);
  if (in.fail()) return;
  System::checkRange(length, maxLength, "string length");
  System::readBytes(in, s, length);
}

namespace {

// A bounded list: the count is checked first, then each element is read by
// readElement as its bytes arrive.
template <typename List, typename ReadElement>
void getList(std::istream& in, List& out, int maxCount, ReadElement readElement) {
  const int count = System::readInt32(in);
  if (in.fail()) return;
  System::checkRange(count, maxCount, "list count");
  List result;
  for (int i = 0; i < count && in.good(); ++i) readElement(result.emplace_back());
  out.swap(result);
}

}  // namespace

void getStringList(std::istream& in, StringList& out, int maxCount, int maxLength) {
  getList(in, out, maxCount, [&](std::string& s) { getString(in, s, maxLength); });
}

void getStringSet(std::istream& in, std::set<std::string>& out, int maxCount, int maxLength) {
  StringList elements;
  getStringList(in, elements, maxCount, maxLength);
  if (in.fail()) return;
  out = std::set<std::string>(elements.begin(), elements.end());
}

void getPairList(std::istream& in, StringIntPairList& out, int maxCount, int maxLength) {
  getList(in, out, maxCount, [&](std::pair<std::string, int>& p) {
    getString(in, p.first, maxLength);
    p.second = System::readInt32(in);
  });
}

bool getBool(TCPStream& in) {
  bool value = false;
  in >> value;
  return value;
}

}  // namespace Wire
