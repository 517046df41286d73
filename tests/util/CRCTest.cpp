#include "util/CRC.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

// Bit-at-a-time reference, independent of the slicing tables.
uint32_t referenceCrc(const unsigned char* p, size_t n) {
  uint32_t c = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) {
    c ^= p[i];
    for (int b = 0; b < 8; ++b) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
  }
  return ~c;
}

const unsigned char* bytes(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

}  // namespace

TEST(CRCTest, PublishedCheckValueAndEmptyInput) {
  EXPECT_EQ(0xE3069283u, CRC::crc32c(bytes("123456789"), 9, 0));
  EXPECT_EQ(0u, CRC::crc32c(bytes(""), 0, 0));
  EXPECT_EQ(0x1234u, CRC::crc32c(bytes("x"), 0, 0x1234u));
  // 32 zero bytes: a published CRC-32C vector that crosses the block loop.
  const std::vector<unsigned char> zeros(32, 0);
  EXPECT_EQ(0x8A9136AAu, CRC::crc32c(zeros.data(), zeros.size(), 0));
}

TEST(CRCTest, AnySplitAndAnyAlignmentGivesTheOneCallValue) {
  std::mt19937 rng(20240521u);
  std::vector<unsigned char> data(4096 + 8);
  for (auto& b : data) b = static_cast<unsigned char>(rng());
  std::uniform_int_distribution<size_t> offsetDist(0, 7), lengthDist(0, 4096);
  for (int round = 0; round < 300; ++round) {
    const size_t offset = offsetDist(rng);
    const size_t length = lengthDist(rng);
    const unsigned char* p = data.data() + offset;
    const uint32_t whole = CRC::crc32c(p, length, 0);
    ASSERT_EQ(referenceCrc(p, length), whole) << "offset " << offset << " length " << length;
    const size_t cut = length == 0 ? 0 : std::uniform_int_distribution<size_t>(0, length)(rng);
    const uint32_t split = CRC::crc32c(p + cut, length - cut, CRC::crc32c(p, cut, 0));
    ASSERT_EQ(whole, split) << "offset " << offset << " length " << length << " cut " << cut;
  }
}
