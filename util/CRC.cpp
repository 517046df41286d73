// CRC-32C from lookup tables, and with the CPU's instruction (SSE 4.2, ARMv8
// CRC) compiled only into the functions that use it, so the program still
// runs on CPUs without it. The instruction's result is needed three cycles
// later while one could start every cycle, so large inputs are cut into three
// streams with their own dependency chains, joined by advancing a register
// over a stream's length of zeros.
#include "util/CRC.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#define HC_CRC_HARDWARE 1
#define HC_CRC_TARGET __attribute__((target("sse4.2")))
#elif defined(__aarch64__) && defined(__linux__)
#include <arm_acle.h>
#include <asm/hwcap.h>
#include <sys/auxv.h>
#define HC_CRC_HARDWARE 1
#if defined(__clang__)
#define HC_CRC_TARGET __attribute__((target("crc")))
#else
#define HC_CRC_TARGET __attribute__((target("+crc")))
#endif
#endif

namespace {

// Arithmetic modulo the polynomial, on the bit-reversed register the checksum
// keeps: bit 31 holds the coefficient of x^0 and bit 0 that of x^31.
constexpr uint32_t kPolynomial = 0x82F63B78u;

// a * b modulo the polynomial.
constexpr uint32_t multiply(uint32_t a, uint32_t b) {
  uint32_t product = 0;
  for (int i = 0; i < 32; ++i, a <<= 1) {
    if (a & 0x80000000u) product ^= b;  // a has x^i: add b * x^i
    b = (b & 1) ? (b >> 1) ^ kPolynomial : b >> 1;
  }
  return product;
}

// x^(8n) modulo the polynomial: what n zero bytes multiply a register by.
constexpr uint32_t zeroBytesFactor(size_t n) {
  uint32_t result = 0x80000000u;  // 1
  uint32_t power = 0x00800000u;   // x^8
  for (; n != 0; n >>= 1, power = multiply(power, power)) {
    if (n & 1) result = multiply(result, power);
  }
  return result;
}

using Table = std::array<std::array<uint32_t, 256>, 8>;

// Table 0 is the register update for one byte; table k+1 advances table k's
// entry by one more zero byte, so table k handles a byte k positions early.
constexpr Table makeTable() {
  Table t{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
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

#ifdef HC_CRC_HARDWARE
// Advancing a register over n zero bytes is linear in the register, so it
// splits into one lookup per register byte, table k covering byte k.
using ShiftTable = std::array<std::array<uint32_t, 256>, 4>;

constexpr ShiftTable makeShiftTable(size_t n) {
  const uint32_t factor = zeroBytesFactor(n);
  ShiftTable t{};
  for (int k = 0; k < 4; ++k) {
    for (uint32_t b = 0; b < 256; ++b) t[k][b] = multiply(b << (8 * k), factor);
  }
  return t;
}

inline uint32_t shift(uint32_t c, const ShiftTable& t) {
  return t[0][c & 0xff] ^ t[1][(c >> 8) & 0xff] ^ t[2][(c >> 16) & 0xff] ^ t[3][c >> 24];
}

// Stream lengths in bytes, multiples of 8. Long streams make the joins rare
// in bulk data; short ones keep a few KiB on three chains too.
constexpr size_t kLongStream = 4096;
constexpr size_t kShortStream = 256;
constexpr ShiftTable kLongShift = makeShiftTable(kLongStream);
constexpr ShiftTable kShortShift = makeShiftTable(kShortStream);

HC_CRC_TARGET inline uint32_t step8(uint32_t c, const unsigned char* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  v = __builtin_bswap64(v);  // the instruction takes the first byte from the low end
#endif
#if defined(__x86_64__)
  return static_cast<uint32_t>(_mm_crc32_u64(c, v));
#elif defined(__clang__)
  return __builtin_arm_crc32cd(c, v);  // its header hides __crc32cd without a global +crc
#else
  return __crc32cd(c, v);
#endif
}

HC_CRC_TARGET inline uint32_t step1(uint32_t c, unsigned char b) {
#if defined(__x86_64__)
  return _mm_crc32_u8(c, b);
#elif defined(__clang__)
  return __builtin_arm_crc32cb(c, b);
#else
  return __crc32cb(c, b);
#endif
}

// The register after the 3 * kStream bytes at p, starting from c. Streams 1
// and 2 start from 0; since the register update is linear, stream 0's result
// advanced over kStream zeros, xor stream 1's, is the register after both.
template <size_t kStream>
HC_CRC_TARGET inline uint32_t threeStreams(uint32_t c, const unsigned char* p, const ShiftTable& t) {
  uint32_t c1 = 0, c2 = 0;
  for (size_t i = 0; i < kStream; i += 8) {
    c = step8(c, p + i);
    c1 = step8(c1, p + kStream + i);
    c2 = step8(c2, p + 2 * kStream + i);
  }
  return shift(shift(c, t) ^ c1, t) ^ c2;
}

HC_CRC_TARGET uint32_t extend(uint32_t c, const unsigned char* p, size_t n) {
  const unsigned char* const end = p + n;
  // Single bytes up to an 8-byte boundary, so no load straddles cache lines.
  while (p != end && (reinterpret_cast<uintptr_t>(p) & 7) != 0) c = step1(c, *p++);
  for (; static_cast<size_t>(end - p) >= 3 * kLongStream; p += 3 * kLongStream) {
    c = threeStreams<kLongStream>(c, p, kLongShift);
  }
  for (; static_cast<size_t>(end - p) >= 3 * kShortStream; p += 3 * kShortStream) {
    c = threeStreams<kShortStream>(c, p, kShortShift);
  }
  for (; end - p >= 8; p += 8) c = step8(c, p);
  while (p != end) c = step1(c, *p++);
  return c;
}

bool detect() {
#if defined(__x86_64__)
  __builtin_cpu_init();  // may run before libgcc's own constructor has
  return __builtin_cpu_supports("sse4.2");
#else
  return (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0;
#endif
}

#endif  // HC_CRC_HARDWARE

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
  return multiply(static_cast<uint32_t>(crcA), zeroBytesFactor(lengthB)) ^
         static_cast<uint32_t>(crcB);
}

using Implementation = unsigned int (*)(const unsigned char*, unsigned long, unsigned int);

unsigned int crc32c(const unsigned char* data, unsigned long length, unsigned int crc) {
  // Decided on first use rather than at static initialization, so checksums
  // taken by other units' static constructors get a valid choice too.
  static const Implementation chosen = crc32cHardwareAvailable() ? crc32cHardware : crc32cSoftware;
  return chosen(data, length, crc);
}

bool crc32cHardwareAvailable() {
#ifdef HC_CRC_HARDWARE
  static const bool available = detect();
  return available;
#else
  return false;
#endif
}

unsigned int crc32cHardware(const unsigned char* data, unsigned long length, unsigned int crc) {
#ifdef HC_CRC_HARDWARE
  return ~extend(~static_cast<uint32_t>(crc), data, length);
#else
  return crc32cSoftware(data, length, crc);  // never chosen: nothing to accelerate with
#endif
}

}  // namespace CRC
