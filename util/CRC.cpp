#include "util/CRC.h"

#include <array>
#include <cstdint>
#include <cstring>

#include "util/CRCPolynomial.h"

namespace {

using Table = std::array<std::array<uint32_t, 256>, 8>;

// Table 0 is the register update for one byte; table k+1 advances table k's
// entry by one more zero byte, so table k handles a byte k positions early.
constexpr Table makeTable() {
  Table t{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
    t[0][i] = c;
  }
  for (int k = 0; k + 1 < 8; ++k) {
    for (uint32_t i = 0; i < 256; ++i) t[k + 1][i] = (t[k][i] >> 8) ^ t[0][t[k][i] & 0xff];
  }
  return t;
}

constexpr Table kTable = makeTable();

inline uint32_t byteStep(uint32_t crc, unsigned char b) {
  return kTable[0][(crc ^ b) & 0xff] ^ (crc >> 8);
}

// Little-endian 32-bit word at an aligned address.
inline uint32_t loadWord(const unsigned char* p) {
  uint32_t w;
  std::memcpy(&w, p, sizeof w);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  w = __builtin_bswap32(w);
#endif
  return w;
}

inline uint32_t wordStep(uint32_t crc, const unsigned char* p) {
  crc ^= loadWord(p);
  return kTable[3][crc & 0xff] ^ kTable[2][(crc >> 8) & 0xff] ^
         kTable[1][(crc >> 16) & 0xff] ^ kTable[0][crc >> 24];
}

// Eight bytes at once with all eight tables: the two words' look-ups are
// independent of each other, which halves the dependency chain per byte.
inline uint32_t doubleWordStep(uint32_t crc, const unsigned char* p) {
  const uint32_t lo = crc ^ loadWord(p);
  const uint32_t hi = loadWord(p + 4);
  return kTable[7][lo & 0xff] ^ kTable[6][(lo >> 8) & 0xff] ^ kTable[5][(lo >> 16) & 0xff] ^
         kTable[4][lo >> 24] ^ kTable[3][hi & 0xff] ^ kTable[2][(hi >> 8) & 0xff] ^
         kTable[1][(hi >> 16) & 0xff] ^ kTable[0][hi >> 24];
}

}  // namespace

namespace CRC {

unsigned int crc32cSoftware(const unsigned char* data, unsigned long length, unsigned int crc) {
  if (length == 0) return crc;
  uint32_t c = ~static_cast<uint32_t>(crc);
  const unsigned char* p = data;
  const unsigned char* const end = data + length;
  while (p != end && (reinterpret_cast<uintptr_t>(p) & 3) != 0) c = byteStep(c, *p++);
  while (end - p >= 32) {
    for (int i = 0; i < 4; ++i, p += 8) c = doubleWordStep(c, p);
  }
  while (end - p >= 4) {
    c = wordStep(c, p);
    p += 4;
  }
  while (p != end) c = byteStep(c, *p++);
  return ~c;
}

unsigned int crc32cCombine(unsigned int crcA, unsigned int crcB, unsigned long lengthB) {
  // The conditioning of both checksums cancels out: A's checksum advanced
  // over B's length of zeros, plus B's, is the checksum of both.
  return polynomial::multiply(static_cast<uint32_t>(crcA), polynomial::zeroBytesFactor(lengthB)) ^
         static_cast<uint32_t>(crcB);
}

using Implementation = unsigned int (*)(const unsigned char*, unsigned long, unsigned int);

unsigned int crc32c(const unsigned char* data, unsigned long length, unsigned int crc) {
  // Decided on first use rather than at static initialization, so checksums
  // taken by other units' static constructors get a valid choice too.
  static const Implementation chosen = crc32cHardwareAvailable() ? crc32cHardware : crc32cSoftware;
  return chosen(data, length, crc);
}

}  // namespace CRC
