// CRC-32C (Castagnoli) checksum, used beside each checksummed block on the
// raw TCP stream. crc32c picks, once per process, the CPU's CRC-32C
// instruction where there is one (SSE 4.2 on x86-64, the ARMv8 CRC
// extension on AArch64) and the table-driven code otherwise; the two give
// identical results, and both are exposed so tests and benchmarks can
// compare them.
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
