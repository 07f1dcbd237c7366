#include "vitalscope/platform/live_objects.h"

#include "vitalscope/platform/thread_counts.h"

namespace qbv {

namespace {

// A share is 32 bits of count below 32 bits that change with every change, so that two equal looks at a share
// mean that nothing happened to it between.
constexpr std::uint64_t kChange = std::uint64_t{1} << 32;
constexpr std::uint64_t kCountMask = kChange - 1;

bool takeOne(std::atomic<std::uint64_t>& share) {
  std::uint64_t present = share.load();
  while ((present & kCountMask) != 0)
    if (share.compare_exchange_weak(present, present + kChange - 1)) return true;
  return false;
}

struct Look {
  bool taken = false;
  std::uint64_t changes = 0;  // of all shares together
  std::uint64_t shares = 0;
};

// Takes one where there is one.
Look lookAtAll() {
  Look look;
  visitThreadCounts(
      [](ThreadCounts& counts, void* context) {
        Look& seen = *static_cast<Look*>(context);
        seen.taken = takeOne(counts.objects);
        seen.changes += counts.objects.load() >> 32;
        ++seen.shares;
        return !seen.taken;
      },
      &look);
  return look;
}

}  // namespace

void LiveObjects::add() noexcept {
  threadCounts().objects.fetch_add(kChange + 1);
}

bool LiveObjects::remove() noexcept {
  if (takeOne(threadCounts().objects)) return true;
  // Empty shares seen one after the other prove nothing: what was added behind the look may have been taken
  // before it. Nothing found twice with no change between was nothing at one instant.
  Look last = lookAtAll();
  while (!last.taken) {
    const Look next = lookAtAll();
    if (!next.taken && next.changes == last.changes && next.shares == last.shares) return false;
    last = next;
  }
  return true;
}

std::int64_t LiveObjects::count() noexcept {
  std::int64_t sum = 0;
  visitThreadCounts(
      [](ThreadCounts& counts, void* context) {
        const std::uint64_t share = counts.objects.load(std::memory_order_relaxed);
        *static_cast<std::int64_t*>(context) += static_cast<std::int64_t>(share & kCountMask);
        return true;
      },
      &sum);
  return sum;
}

}  // namespace qbv
