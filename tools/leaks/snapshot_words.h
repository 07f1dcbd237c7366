// The body of Memory::forEachWord.
#pragma once

#include <algorithm>
#include <cstring>

#include "tools/leaks/snapshot.h"

namespace leaks {

template <class Take>
void Memory::forEachWord(Range range, Take take) const {
  constexpr Address kWord = sizeof(std::uint64_t);
  for (std::size_t i = firstPieceBehind(range.begin); i < snapshot_.pieces.size(); ++i) {
    const Piece& piece = snapshot_.pieces[i];
    if (piece.begin >= range.end) return;
    const Address first = (std::max(piece.begin, range.begin) + kWord - 1) & ~(kWord - 1);
    const Address end = std::min(piece.begin + piece.size, range.end);
    for (Address at = first; at < end && end - at >= kWord; at += kWord) {
      std::uint64_t value;
      std::memcpy(&value, piece.bytes + (at - piece.begin), sizeof value);
      take(at, value);
    }
  }
}

}  // namespace leaks
