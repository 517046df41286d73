// CRC-32C (Castagnoli) checksum of checksummed stream blocks. crc32c uses the
// CPU's instruction where there is one and lookup tables otherwise; both are
// exposed so that tests and benchmarks can compare them.
#ifndef HIVE_UTIL_CRC_H_
#define HIVE_UTIL_CRC_H_

namespace CRC {

// Checksum of data[0, length) continued from crc. Pass 0 for a fresh
// checksum; crc32c(B, n, crc32c(A, m, 0)) is the checksum of A followed by B.
// A length of 0 returns crc unchanged. Allocates nothing.
unsigned int crc32c(const unsigned char* data, unsigned long length, unsigned int crc);

// The checksum of A followed by B, from A's checksum, B's and B's length:
// crc32cCombine(crc32c(A, m, 0), crc32c(B, n, 0), n) == crc32c(AB, m + n, 0).
unsigned int crc32cCombine(unsigned int crcA, unsigned int crcB, unsigned long lengthB);

// The same function computed with lookup tables only; runs on any CPU.
unsigned int crc32cSoftware(const unsigned char* data, unsigned long length, unsigned int crc);

// True if this CPU has the CRC-32C instruction crc32cHardware uses.
bool crc32cHardwareAvailable();

// The same function computed with the CPU's instruction. Call it only when
// crc32cHardwareAvailable() is true.
unsigned int crc32cHardware(const unsigned char* data, unsigned long length, unsigned int crc);

}  // namespace CRC

#endif  // HIVE_UTIL_CRC_H_
