#include "tools/leaks/snapshot.h"

#include <algorithm>
#include <cstring>

namespace leaks {

namespace {

bool covers(const Piece& piece, Address address) {
  return address >= piece.begin && address - piece.begin < piece.size;
}

}  // namespace

const Mapping* Memory::mappingOf(Address address) const {
  const auto& mappings = snapshot_.mappings;
  if (lastMapping_ < mappings.size() && mappings[lastMapping_].range.holds(address))
    return &mappings[lastMapping_];
  const auto behind = std::upper_bound(mappings.begin(), mappings.end(), address,
                                       [](Address a, const Mapping& m) { return a < m.range.begin; });
  if (behind == mappings.begin() || !std::prev(behind)->range.holds(address)) return nullptr;
  lastMapping_ = static_cast<std::size_t>(std::prev(behind) - mappings.begin());
  return &mappings[lastMapping_];
}

std::size_t Memory::firstPieceBehind(Address address) const {
  const auto& pieces = snapshot_.pieces;
  const auto behind = std::upper_bound(pieces.begin(), pieces.end(), address,
                                       [](Address a, const Piece& p) { return a < p.begin; });
  const auto index = static_cast<std::size_t>(behind - pieces.begin());
  return index > 0 && covers(pieces[index - 1], address) ? index - 1 : index;
}

bool Memory::copy(Address address, std::byte* to, std::size_t size) const {
  while (size > 0) {
    const auto& pieces = snapshot_.pieces;
    if (lastPiece_ >= pieces.size() || !covers(pieces[lastPiece_], address))
      lastPiece_ = firstPieceBehind(address);
    std::size_t part = size;
    if (lastPiece_ < pieces.size() && covers(pieces[lastPiece_], address)) {
      const Piece& piece = pieces[lastPiece_];
      const auto offset = static_cast<std::size_t>(address - piece.begin);
      part = std::min(size, piece.size - offset);
      std::memcpy(to, piece.bytes + offset, part);
    } else {
      const Mapping* const mapping = mappingOf(address);
      if (mapping == nullptr || !mapping->readable) return false;
      Address end = mapping->range.end;
      if (lastPiece_ < pieces.size()) end = std::min(end, std::max(pieces[lastPiece_].begin, address + 1));
      part = static_cast<std::size_t>(std::min<Address>(size, end - address));
      std::memset(to, 0, part);
    }
    address += part;
    to += part;
    size -= part;
  }
  return true;
}

std::optional<std::uint64_t> Memory::word(Address address) const {
  std::byte bytes[sizeof(std::uint64_t)];
  if (address > ~Address{0} - sizeof bytes || !copy(address, bytes, sizeof bytes)) return std::nullopt;
  std::uint64_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

std::optional<std::uint32_t> Memory::half(Address address) const {
  std::byte bytes[sizeof(std::uint32_t)];
  if (address > ~Address{0} - sizeof bytes || !copy(address, bytes, sizeof bytes)) return std::nullopt;
  std::uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

std::vector<std::byte> Memory::bytes(Address address, std::size_t size) const {
  std::vector<std::byte> copied;
  for (std::byte byte; copied.size() < size && copy(address + copied.size(), &byte, 1);)
    copied.push_back(byte);
  return copied;
}

}  // namespace leaks
