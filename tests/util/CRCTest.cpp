#include "util/CRC.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Checksum = unsigned int (*)(const unsigned char*, unsigned long, unsigned int);

// The chosen one is what callers get; the others are each tested on their own
// so a fault in the one not chosen here still shows.
std::vector<std::pair<const char*, Checksum>> implementations() {
  std::vector<std::pair<const char*, Checksum>> all = {{"chosen", CRC::crc32c},
                                                       {"software", CRC::crc32cSoftware}};
  if (CRC::crc32cHardwareAvailable()) all.emplace_back("hardware", CRC::crc32cHardware);
  return all;
}

TEST(CRCTest, PublishedCheckValuesAndEmptyInput) {
  std::vector<unsigned char> zeros(32, 0), ones(32, 0xff), counting(32);
  for (size_t i = 0; i < counting.size(); ++i) counting[i] = static_cast<unsigned char>(i);
  for (const auto& [name, crc] : implementations()) {
    SCOPED_TRACE(name);
    EXPECT_EQ(0xE3069283u, crc(reinterpret_cast<const unsigned char*>("123456789"), 9, 0));
    EXPECT_EQ(0x1234u, crc(zeros.data(), 0, 0x1234u));
    EXPECT_EQ(0x8A9136AAu, crc(zeros.data(), 32, 0));
    EXPECT_EQ(0x62A8AB43u, crc(ones.data(), 32, 0));
    EXPECT_EQ(0x46DD794Eu, crc(counting.data(), 32, 0));
  }
}

// Random lengths at any alignment, continuing from a random register: half
// of them under 1 KiB, the others up to 64 KiB so that the cut also falls
// inside and between the blocks a long input is processed in. Each
// implementation gives the table's value whole, continued from the cut, and
// joined from two pieces summed apart.
TEST(CRCTest, AnyLengthAlignmentStartAndSplitGivesTheTableValue) {
  std::mt19937 rng(20240521u);
  std::vector<unsigned char> data((64 << 10) + 8), aligned;
  for (auto& b : data) b = static_cast<unsigned char>(rng());
  for (const auto& [name, crc] : implementations()) {
    for (int round = 0; round < 600; ++round) {
      const size_t offset = rng() % 8, length = rng() % (round % 2 ? 1025 : (64 << 10) + 1);
      const size_t cut = rng() % (length + 1);
      const unsigned start = static_cast<unsigned>(rng());
      SCOPED_TRACE(std::string(name) + " offset " + std::to_string(offset) + " length " +
                   std::to_string(length) + " cut " + std::to_string(cut));
      const unsigned char* p = data.data() + offset;
      aligned.assign(p, p + length);  // the same bytes at the vector's own alignment
      const unsigned whole = CRC::crc32cSoftware(aligned.data(), length, start);
      ASSERT_EQ(whole, crc(p, length, start));
      ASSERT_EQ(whole, crc(p + cut, length - cut, crc(p, cut, start)));
      ASSERT_EQ(CRC::crc32cSoftware(p, length, 0),
                CRC::crc32cCombine(crc(p, cut, 0), crc(p + cut, length - cut, 0), length - cut));
    }
  }
}

}  // namespace
