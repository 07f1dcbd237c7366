// Counts that every thread keeps for itself, so that counting costs the same on one thread and on many.
#pragma once

#include <atomic>
#include <cstdint>

#include "vitalscope/platform/export.h"

namespace qbv {

// A cache line of its own. Never zeroed: when its thread ends the counts stay, and the next thread that is
// given the slot goes on from them. So a sum over all slots loses nothing.
struct alignas(64) ThreadCounts {
  static constexpr std::uint64_t kSharedObjects = std::uint64_t{1} << 31;  // every thread writes `objects`
  std::atomic<std::int64_t> blocks{0};  // written by its thread alone, except in the shared slot
  std::atomic<std::uint64_t> objects{kSharedObjects};  // see live_objects.h
  std::atomic<bool> owned{false};
};

namespace detail {
// Null before the thread's first count, while its slot is made, and after the slot was given back.
extern QBV_EXPORT constinit thread_local ThreadCounts* ownCounts [[gnu::tls_model("initial-exec")]];
// What `objects` of a slot begins with when it is given to its first thread.
extern constinit std::atomic<std::uint64_t> objectsOfNewSlots;
// Adds by an atomic operation where there is no slot.
QBV_EXPORT void addLiveBlocksSlowly(std::int64_t change) noexcept;
}  // namespace detail

// The calling thread's slot, made on its first use; where it has none, one that such threads share: every
// change of that one must be an atomic operation. Any thread at any time of its life, and of the process's:
// before the first constructor, after the last destructor. Takes no heap memory of its own, takes no lock,
// leaves errno alone. A forked child goes on from its parent's counts: the blocks are alive in it as well.
QBV_EXPORT ThreadCounts& threadCounts() noexcept;

// Calls visit for every slot there is, in any order, until it answers false.
using ThreadCountsVisit = bool(ThreadCounts& counts, void* context);
QBV_EXPORT void visitThreadCounts(ThreadCountsVisit* visit, void* context) noexcept;

// Whether the calling thread has a slot of its own already. Counting is then a few instructions.
inline bool hasThreadCounts() noexcept {
  return detail::ownCounts != nullptr;
}

// Counts live heap blocks: +1 or -1, as above.
inline void addLiveBlocks(std::int64_t change) noexcept {
  ThreadCounts* const mine = detail::ownCounts;
  if (mine == nullptr) [[unlikely]]
    return detail::addLiveBlocksSlowly(change);
  mine->blocks.store(mine->blocks.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
}

// The sum over all threads. Any thread; exact when no other thread counts meanwhile. Below 0 when more was
// taken off than added.
QBV_EXPORT std::int64_t liveBlocks() noexcept;

}  // namespace qbv
