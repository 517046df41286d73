#include "util/CRC.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Checksum = unsigned int (*)(const unsigned char*, unsigned long, unsigned int);

// Each implementation on its own, so a fault in the one not chosen here shows.
std::vector<std::pair<const char*, Checksum>> implementations() {
  std::vector<std::pair<const char*, Checksum>> all = {{"chosen", CRC::crc32c},
                                                       {"software", CRC::crc32cSoftware}};
  if (CRC::crc32cHardwareAvailable()) all.emplace_back("hardware", CRC::crc32cHardware);
  return all;
}

// The published check value; then random lengths up to 64 KiB (past the
// blocks a long input is cut into) at any alignment, from a random register:
// whole, continued from a cut, and joined from two pieces, as the tables say.
TEST(CRCTest, CheckValueAndAnyLengthAlignmentStartAndSplit) {
  std::mt19937 rng(20240521u);
  std::vector<unsigned char> data((64 << 10) + 8), aligned;
  for (auto& b : data) b = static_cast<unsigned char>(rng());
  for (const auto& [name, crc] : implementations()) {
    EXPECT_EQ(0xE3069283u, crc(reinterpret_cast<const unsigned char*>("123456789"), 9, 0)) << name;
    EXPECT_EQ(0x1234u, crc(data.data(), 0, 0x1234u)) << name;
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
