#include "util/CRC.h"

#include <gtest/gtest.h>

#include <random>
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

std::vector<unsigned char> randomBytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<unsigned char> data(n);
  for (auto& b : data) b = static_cast<unsigned char>(rng());
  return data;
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

// Lengths up to 64 KiB so that the cut also falls inside and between the
// blocks a long input is processed in.
TEST(CRCTest, AnySplitAndAnyAlignmentGivesTheOneCallValue) {
  const size_t maxLength = 64 << 10;
  const std::vector<unsigned char> data = randomBytes(maxLength + 8, 20240521u);
  std::vector<unsigned char> aligned;
  for (const auto& [name, crc] : implementations()) {
    std::mt19937 rng(1u);
    for (int round = 0; round < 300; ++round) {
      const size_t offset = rng() % 8, length = rng() % (maxLength + 1), cut = rng() % (length + 1);
      SCOPED_TRACE(std::string(name) + " offset " + std::to_string(offset) + " length " +
                   std::to_string(length) + " cut " + std::to_string(cut));
      const unsigned char* p = data.data() + offset;
      aligned.assign(p, p + length);  // the same bytes at the vector's own alignment
      const unsigned whole = crc(aligned.data(), length, 0);
      ASSERT_EQ(whole, crc(p, length, 0));
      ASSERT_EQ(whole, crc(p + cut, length - cut, crc(p, cut, 0)));
      // Two pieces summed apart join into the same value.
      ASSERT_EQ(whole, CRC::crc32cCombine(crc(p, cut, 0), crc(p + cut, length - cut, 0), length - cut));
    }
  }
}

// The instruction against the tables: every length up to 4 KiB at every
// alignment, then a few MiB-sized buffers, each continuing from a random
// register so the joining of parallel streams is checked with a live start.
TEST(CRCHardwareTest, MatchesSoftwareAtAnyLengthAlignmentAndStart) {
  if (!CRC::crc32cHardwareAvailable()) GTEST_SKIP() << "this CPU has no CRC-32C instruction";
  const size_t maxLength = 5 << 20;
  const std::vector<unsigned char> data = randomBytes(maxLength + 8, 7u);
  std::mt19937 rng(7u);
  std::vector<std::pair<size_t, size_t>> cases = {{maxLength, rng() % 8}};  // (length, offset)
  for (size_t length = 0; length <= 4096; ++length) {
    for (size_t offset = 0; offset < 8; ++offset) cases.emplace_back(length, offset);
  }
  for (int i = 0; i < 4; ++i) cases.emplace_back((1 << 20) + rng() % (maxLength - (1 << 20)), rng() % 8);
  for (const auto& [length, offset] : cases) {
    const unsigned int start = static_cast<unsigned int>(rng());
    const unsigned char* p = data.data() + offset;
    ASSERT_EQ(CRC::crc32cSoftware(p, length, start), CRC::crc32cHardware(p, length, start))
        << "offset " << offset << " length " << length;
  }
}

}  // namespace
