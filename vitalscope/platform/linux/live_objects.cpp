#include "vitalscope/platform/live_objects.h"

#include "vitalscope/platform/linux/process_barrier.h"
#include "vitalscope/platform/thread_counts.h"

namespace qbv {

namespace {

using Share = std::atomic<std::uint64_t>;

// A share is 30 bits of count, two bits that say who may write, and 32 bits that change with every change, so
// that two equal looks at a share mean that nothing happened to it between.
constexpr std::uint64_t kChange = std::uint64_t{1} << 32;
constexpr std::uint64_t kCountMask = (std::uint64_t{1} << 30) - 1;
// Another thread wants to take from the share: its owner, too, goes by locked instructions from now on.
constexpr std::uint64_t kAsked = std::uint64_t{1} << 30;
// The owner does so for certain, and everybody may take.
constexpr std::uint64_t kShared = ThreadCounts::kSharedObjects;

#if defined(__x86_64__) && !defined(QBV_SANITIZED)
constexpr bool kOwnersCanDoWithoutLock = true;

// Compares and exchanges without a lock, at a quarter of the price. It is one instruction: whatever
// interrupts the thread finds it done or not begun. What another processor writes meanwhile may get lost.
inline bool exchangeUnlocked(Share& share, std::uint64_t& expected, std::uint64_t wanted) {
  bool done;
  asm volatile("cmpxchgq %3, %1" : "=@ccz"(done), "+m"(share), "+a"(expected) : "r"(wanted) : "memory");
  return done;
}
#else
constexpr bool kOwnersCanDoWithoutLock = false;

inline bool exchangeUnlocked(Share& share, std::uint64_t& expected, std::uint64_t wanted) {
  return share.compare_exchange_strong(expected, wanted);
}
#endif

inline Share& ownShare() {
  ThreadCounts* const mine = detail::ownCounts;
  return mine != nullptr ? mine->objects : threadCounts().objects;
}

// `change` is 1 or -1; false when that would lead below 0. By the share's owner.
template <std::int64_t change>
inline bool changeOwn(Share& share) {
  std::uint64_t present = share.load(std::memory_order_relaxed);
  while (change > 0 || (present & kCountMask) != 0) {
    const std::uint64_t wanted = present + kChange + static_cast<std::uint64_t>(change);
    if ((present & (kAsked | kShared)) == 0) [[likely]] {
      if (exchangeUnlocked(share, present, wanted)) return true;
    } else if (share.compare_exchange_weak(present, wanted)) {
      return true;
    }
  }
  return false;
}

// The owner may be in the middle of an exchange that overwrites the question: ask until it stands. After the
// barrier no exchange is under way that began before the question, and none begins that does not see it.
void makeShared(Share& share) {
  do {
    share.fetch_or(kAsked);
    linux_backend::processBarrier();
  } while ((share.load() & kAsked) == 0);
  share.fetch_or(kShared);
}

bool takeFromAnother(Share& share) {
  std::uint64_t present = share.load();
  while ((present & kCountMask) != 0) {
    if ((present & kShared) == 0) {
      makeShared(share);
      present = share.load();
    } else if (share.compare_exchange_weak(present, present + kChange - 1)) {
      return true;
    }
  }
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
        seen.taken = takeFromAnother(counts.objects);
        seen.changes += counts.objects.load() >> 32;
        ++seen.shares;
        return !seen.taken;
      },
      &look);
  return look;
}

// Empty shares seen one after the other prove nothing: what was added behind the look may have been taken
// before it. Nothing found twice with no change between was nothing at one instant.
[[gnu::noinline]] bool takeFromAll() {
  Look last = lookAtAll();
  while (!last.taken) {
    const Look next = lookAtAll();
    if (!next.taken && next.changes == last.changes && next.shares == last.shares) return false;
    last = next;
  }
  return true;
}

}  // namespace

void LiveObjects::prepare() noexcept {
  if (kOwnersCanDoWithoutLock && linux_backend::prepareProcessBarrier())
    detail::objectsOfNewSlots.store(0, std::memory_order_relaxed);
}

void LiveObjects::add() noexcept {
  changeOwn<1>(ownShare());
}

bool LiveObjects::remove() noexcept {
  return changeOwn<-1>(ownShare()) || takeFromAll();
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
