#include "util/CRC.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Checksum = unsigned int (*)(const unsigned char*, unsigned long, unsigned int);

struct Implementation {
  const char* name;
  Checksum fn;
  bool needsInstruction;
};

// The chosen one is what callers get; the other two are each tested on
// their own so a fault in the one not chosen here still shows.
const Implementation kImplementations[] = {
    {"Chosen", CRC::crc32c, false},
    {"Software", CRC::crc32cSoftware, false},
    {"Hardware", CRC::crc32cHardware, true},
};

// Names the parameter in test listings instead of dumping its bytes.
void PrintTo(const Implementation& implementation, std::ostream* os) { *os << implementation.name; }

const char kNoInstruction[] = "this CPU has no CRC-32C instruction";

class CRCTest : public ::testing::TestWithParam<Implementation> {
 protected:
  void SetUp() override {
    if (GetParam().needsInstruction && !CRC::crc32cHardwareAvailable()) GTEST_SKIP() << kNoInstruction;
  }
  unsigned int crc(const unsigned char* p, size_t n, unsigned int c) const { return GetParam().fn(p, n, c); }
};

TEST_P(CRCTest, PublishedCheckValuesAndEmptyInput) {
  EXPECT_EQ(0xE3069283u, crc(reinterpret_cast<const unsigned char*>("123456789"), 9, 0));
  std::vector<unsigned char> bytes(32, 0);
  EXPECT_EQ(0x1234u, crc(bytes.data(), 0, 0x1234u));
  EXPECT_EQ(0x8A9136AAu, crc(bytes.data(), bytes.size(), 0));
  bytes.assign(32, 0xff);
  EXPECT_EQ(0x62A8AB43u, crc(bytes.data(), bytes.size(), 0));
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i);
  EXPECT_EQ(0x46DD794Eu, crc(bytes.data(), bytes.size(), 0));
}

// Lengths up to 64 KiB so that the cut also falls inside and between the
// blocks a long input is processed in.
TEST_P(CRCTest, AnySplitAndAnyAlignmentGivesTheOneCallValue) {
  std::mt19937 rng(20240521u);
  const size_t maxLength = 64 << 10;
  std::vector<unsigned char> data(maxLength + 8), aligned(maxLength);
  for (auto& b : data) b = static_cast<unsigned char>(rng());
  std::uniform_int_distribution<size_t> offsetDist(0, 7), lengthDist(0, maxLength);
  for (int round = 0; round < 300; ++round) {
    const size_t offset = offsetDist(rng), length = lengthDist(rng);
    const unsigned char* p = data.data() + offset;
    aligned.assign(p, p + length);  // the same bytes at the vector's own alignment
    const uint32_t whole = crc(aligned.data(), length, 0);
    ASSERT_EQ(whole, crc(p, length, 0)) << "offset " << offset << " length " << length;
    const size_t cut = std::uniform_int_distribution<size_t>(0, length)(rng);
    ASSERT_EQ(whole, crc(p + cut, length - cut, crc(p, cut, 0)))
        << "offset " << offset << " length " << length << " cut " << cut;
    // Two pieces summed apart join into the same value.
    ASSERT_EQ(whole, CRC::crc32cCombine(crc(p, cut, 0), crc(p + cut, length - cut, 0),
                                        length - cut))
        << "offset " << offset << " length " << length << " cut " << cut;
  }
}

INSTANTIATE_TEST_SUITE_P(AllImplementations, CRCTest, ::testing::ValuesIn(kImplementations),
                         [](const ::testing::TestParamInfo<Implementation>& info) {
                           return std::string(info.param.name);
                         });

// The instruction against the tables: every length up to 4 KiB at every
// alignment, then a few MiB-sized buffers, each continuing from a random
// register so the joining of parallel streams is checked with a live start.
TEST(CRCHardwareTest, MatchesSoftwareAtAnyLengthAlignmentAndStart) {
  if (!CRC::crc32cHardwareAvailable()) GTEST_SKIP() << kNoInstruction;
  std::mt19937 rng(7u);
  const size_t maxLength = 5 << 20;
  std::vector<unsigned char> data(maxLength + 8);
  for (auto& b : data) b = static_cast<unsigned char>(rng());
  std::vector<std::pair<size_t, size_t>> cases;  // (length, offset)
  for (size_t length = 0; length <= 4096; ++length) {
    for (size_t offset = 0; offset < 8; ++offset) cases.emplace_back(length, offset);
  }
  std::uniform_int_distribution<size_t> lengthDist(1 << 20, maxLength), offsetDist(0, 7);
  cases.emplace_back(maxLength, offsetDist(rng));
  for (int i = 0; i < 4; ++i) cases.emplace_back(lengthDist(rng), offsetDist(rng));
  for (const auto& [length, offset] : cases) {
    const unsigned int start = static_cast<unsigned int>(rng());
    const unsigned char* p = data.data() + offset;
    ASSERT_EQ(CRC::crc32cSoftware(p, length, start), CRC::crc32cHardware(p, length, start))
        << "offset " << offset << " length " << length;
  }
}

}  // namespace
