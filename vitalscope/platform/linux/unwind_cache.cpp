#include "vitalscope/platform/linux/unwind_cache.h"

#include <bit>
#include <cstring>

#include "vitalscope/platform/linux/unwind_program.h"

namespace qbv::linux_backend {

namespace {

bool unchanged(const Rule& rule) {
  return rule.kind == RuleKind::unspecified || rule.kind == RuleKind::same;
}

// The place of a saved register in words below the frame address, 0 if it is not one that fits a byte.
std::uint8_t wordsBelow(const Rule& rule) {
  constexpr std::int64_t kWord = 8;
  if (rule.kind != RuleKind::saved || rule.operand >= 0 || rule.operand < -255 * kWord) return 0;
  return rule.operand % kWord == 0 ? static_cast<std::uint8_t>(-rule.operand / kWord) : 0;
}

}  // namespace

bool compact(const Row& row, bool signalFrame, CompactRow& result) {
  result = {};
  const bool fits = row.frame.kind == RuleKind::frameRelative && row.frameRegister < kRegisterCount &&
                    std::bit_cast<std::uint64_t>(row.frame.operand) + 0x80000000U <= 0xffffffffU;
  if (!fits) return false;
  result.frameOffset = static_cast<std::int32_t>(row.frame.operand);
  result.frameRegister = static_cast<std::uint8_t>(row.frameRegister);
  result.signalFrame = signalFrame;
  result.outermost = row.rules[kReturnColumn].kind == RuleKind::undefined;
  std::uint64_t tracked = 0;
  for (std::size_t i = 0; i < kTrackedRegisters.size(); ++i) {
    const unsigned number = kTrackedRegisters[i];
    tracked |= std::uint64_t{1} << number;
    if (unchanged(row.rules[number]) || (number == kReturnColumn && result.outermost)) continue;
    result.saved[i] = wordsBelow(row.rules[number]);
    if (result.saved[i] == 0) return false;
  }
  for (unsigned number = 0; number < kRegisterCount; ++number) {
    if ((tracked >> number & 1U) == 0 && !unchanged(row.rules[number])) return false;
  }
  return true;
}

void RowCache::store(std::uint64_t pc, std::uint32_t generation, const CompactRow& row) {
  Place& place = places_[placeOf(pc)];
  std::uint64_t stamp = place.stamp.load(std::memory_order_relaxed);
  if ((stamp & 1U) != 0) return;
  const std::uint64_t busy = stamp | 1U;
  if (!place.stamp.compare_exchange_strong(stamp, busy, std::memory_order_acquire)) return;
  std::uint64_t saved = 0;
  std::memcpy(&saved, row.saved.data(), row.saved.size());
  place.pc.store(pc, std::memory_order_release);
  place.frame.store(packFrame(row), std::memory_order_release);
  place.saved.store(saved, std::memory_order_release);
  const auto count = static_cast<std::uint32_t>(busy) + 1U;
  place.stamp.store(std::uint64_t{generation} << 32U | count, std::memory_order_release);
}

}  // namespace qbv::linux_backend
