// How long the main thread has been stuck, as a level from 1 (light) to 5 (freeze).
#pragma once

#include <cstddef>
#include <cstdint>

namespace qbv {

// So many guards are kept; further ones are posted, not kept.
inline constexpr std::size_t kMostGuards = 10;

// Level for a number of unanswered guards: 0 for less than 2 (the one just posted is always unanswered), then
// one less than their number, at most 5.
constexpr std::uint64_t anrLevelForUnansweredGuards(std::size_t unanswered) noexcept {
  if (unanswered < 2) return 0;
  return unanswered < 6 ? unanswered - 1 : 5;
}

// Key under which the ticks of a level (1 to 5) are counted.
constexpr const char* anrRecordKey(std::uint64_t level) noexcept {
  constexpr const char* keys[] = {"QBVANR_LEVEL_Light", "QBVANR_LEVEL_Moderate", "QBVANR_LEVEL_Heavier",
                                  "QBVANR_LEVEL_Severe", "QBVANR_LEVEL_Freeze"};
  return keys[level - 1];
}

}  // namespace qbv
