// Arithmetic modulo the CRC-32C polynomial, shared by the instruction-based
// checksum (to join streams) and by joining the checksums of two pieces.
// All of it is on the bit-reversed register the checksum keeps: bit 31 holds
// the coefficient of x^0 and bit 0 that of x^31.
#ifndef HIVE_UTIL_CRCPOLYNOMIAL_H_
#define HIVE_UTIL_CRCPOLYNOMIAL_H_

#include <cstddef>
#include <cstdint>

namespace CRC {
namespace polynomial {

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

}  // namespace polynomial
}  // namespace CRC

#endif  // HIVE_UTIL_CRCPOLYNOMIAL_H_
