#include <array>
#include <cstdint>
#include <cstring>

#include "vitalscope/memory/QBRapidCRC64.h"

namespace {

constexpr std::uint64_t kReflectedECMA182 = 0xC96C5795D7870F42;

using Table = std::array<std::uint64_t, 256>;

// One byte fed into a register.
constexpr std::uint64_t feed(std::uint64_t crc, std::uint64_t byte) {
  crc ^= byte;
  for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? (crc >> 1) ^ kReflectedECMA182 : crc >> 1;
  return crc;
}

// Table k holds the register after a byte and 7 - k zero bytes.
constexpr std::array<Table, 8> makeTables() {
  std::array<Table, 8> tables{};
  for (std::size_t byte = 0; byte < 256; ++byte) tables[7][byte] = feed(0, byte);
  for (std::size_t k = 7; k-- > 0;)
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint64_t crc = tables[k + 1][byte];
      tables[k][byte] = (crc >> 8) ^ tables[7][crc & 0xFF];
    }
  return tables;
}

constexpr std::array<Table, 8> kTables = makeTables();

}  // namespace

std::uint64_t rapid_crc64(std::uint64_t seed, const void* data, std::uint64_t length) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint64_t crc = ~seed;
  for (; length >= 8; length -= 8, bytes += 8) {
    std::uint64_t x;
    std::memcpy(&x, bytes, sizeof x);
    x ^= crc;
    crc = kTables[0][x & 0xFF] ^ kTables[1][x >> 8 & 0xFF] ^ kTables[2][x >> 16 & 0xFF] ^
          kTables[3][x >> 24 & 0xFF] ^ kTables[4][x >> 32 & 0xFF] ^ kTables[5][x >> 40 & 0xFF] ^
          kTables[6][x >> 48 & 0xFF] ^ kTables[7][x >> 56];
  }
  return ~crc;
}
