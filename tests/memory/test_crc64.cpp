#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "vitalscope/memory/QBRapidCRC64.h"

namespace {

// The polynomial as published, most significant bit first, and a register that takes one bit at a time.
constexpr std::uint64_t kECMA182 = 0x42F0E1EBA9EA3693;

std::uint64_t mirrored(std::uint64_t value) {
  std::uint64_t result = 0;
  for (int bit = 0; bit < 64; ++bit) result |= ((value >> bit) & 1) << (63 - bit);
  return result;
}

std::uint64_t bitByBit(std::uint64_t seed, const unsigned char* data, std::size_t length) {
  std::uint64_t crc = mirrored(~seed);
  for (std::size_t index = 0; index < length; ++index)
    for (int bit = 0; bit < 8; ++bit) {
      const std::uint64_t incoming = (data[index] >> bit) & 1U;
      const bool carry = ((crc >> 63) ^ incoming) != 0;
      crc = (crc << 1) ^ (carry ? kECMA182 : 0);
    }
  return ~mirrored(crc);
}

TEST(RapidCRC64, AgreesWithARegisterThatTakesOneBitAtATime) {
  std::mt19937_64 random(7);
  for (int round = 0; round < 400; ++round) {
    std::vector<unsigned char> data(8 * (random() % 40));
    for (unsigned char& byte : data) byte = static_cast<unsigned char>(random());
    const std::uint64_t seed = round % 3 == 0 ? 0 : random();
    ASSERT_EQ(rapid_crc64(seed, data.data(), data.size()), bitByBit(seed, data.data(), data.size()));
  }
  // Each position of the group has a table of its own.
  for (std::size_t position = 0; position < 8; ++position)
    for (unsigned value = 0; value < 256; ++value) {
      std::array<unsigned char, 8> group{};
      group[position] = static_cast<unsigned char>(value);
      ASSERT_EQ(rapid_crc64(0, group.data(), 8), bitByBit(0, group.data(), 8)) << position << ' ' << value;
    }
}

TEST(RapidCRC64, TakesWholeGroupsOnlyAndGoesOnFromAResult) {
  const std::string text = "0123456789abcdefghijklmn";
  EXPECT_EQ(rapid_crc64(77, text.data(), 7), 77U);
  EXPECT_EQ(rapid_crc64(77, nullptr, 0), 77U);
  EXPECT_EQ(rapid_crc64(0, text.data(), 12), rapid_crc64(0, text.data(), 8));
  EXPECT_EQ(rapid_crc64(rapid_crc64(5, text.data(), 8), text.data() + 8, 16),
            rapid_crc64(5, text.data(), 24));
  alignas(8) std::array<char, 32> shifted{};
  std::memcpy(shifted.data() + 3, text.data(), 24);
  EXPECT_EQ(rapid_crc64(5, shifted.data() + 3, 24), rapid_crc64(5, text.data(), 24));
}

}  // namespace
