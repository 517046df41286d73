#include "util/CRC.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

TEST(CRCTest, PublishedCheckValuesAndEmptyInput) {
  EXPECT_EQ(0xE3069283u, CRC::crc32c(reinterpret_cast<const unsigned char*>("123456789"), 9, 0));
  // Published 32-byte vectors, long enough for the block loop: zeros, then 0, 1, ..., 31.
  std::vector<unsigned char> bytes(32, 0);
  EXPECT_EQ(0x1234u, CRC::crc32c(bytes.data(), 0, 0x1234u));
  EXPECT_EQ(0x8A9136AAu, CRC::crc32c(bytes.data(), bytes.size(), 0));
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i);
  EXPECT_EQ(0x46DD794Eu, CRC::crc32c(bytes.data(), bytes.size(), 0));
}

TEST(CRCTest, AnySplitAndAnyAlignmentGivesTheOneCallValue) {
  std::mt19937 rng(20240521u);
  std::vector<unsigned char> data(4096 + 8), aligned(4096);
  for (auto& b : data) b = static_cast<unsigned char>(rng());
  std::uniform_int_distribution<size_t> offsetDist(0, 7), lengthDist(0, 4096);
  for (int round = 0; round < 300; ++round) {
    const size_t offset = offsetDist(rng), length = lengthDist(rng);
    const unsigned char* p = data.data() + offset;
    aligned.assign(p, p + length);  // the same bytes at the vector's own alignment
    const uint32_t whole = CRC::crc32c(aligned.data(), length, 0);
    ASSERT_EQ(whole, CRC::crc32c(p, length, 0)) << "offset " << offset << " length " << length;
    const size_t cut = std::uniform_int_distribution<size_t>(0, length)(rng);
    ASSERT_EQ(whole, CRC::crc32c(p + cut, length - cut, CRC::crc32c(p, cut, 0)))
        << "offset " << offset << " length " << length << " cut " << cut;
  }
}
