// CRC-32C (Castagnoli) checksum, used beside each checksummed block on the
// raw TCP stream.
#ifndef HC_UTIL_CRC_H
#define HC_UTIL_CRC_H

namespace CRC {

// Checksum of data[0, length) continued from crc. Pass 0 for a fresh
// checksum; crc32c(B, n, crc32c(A, m, 0)) is the checksum of A followed by B.
// A length of 0 returns crc unchanged. Allocates nothing.
unsigned int crc32c(const unsigned char* data, unsigned long length, unsigned int crc);

}  // namespace CRC

#endif  // HC_UTIL_CRC_H
