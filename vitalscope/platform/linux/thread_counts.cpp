#include "vitalscope/platform/thread_counts.h"

#include <pthread.h>

#include <array>
#include <cerrno>
#include <new>

#include "vitalscope/platform/linux/pages.h"

namespace qbv {

namespace detail {
constinit thread_local ThreadCounts* ownCounts [[gnu::tls_model("initial-exec")]] = nullptr;
constinit std::atomic<std::uint64_t> objectsOfNewSlots{ThreadCounts::kSharedObjects};
}  // namespace detail

namespace {

// One page.
struct Chunk {
  std::atomic<Chunk*> next{nullptr};
  std::array<ThreadCounts, 63> slots{};
};
static_assert(sizeof(Chunk) == 4096);

constinit ThreadCounts sharedCounts;
constinit std::atomic<Chunk*> chunks{nullptr};

// Set while a slot is made and for good when the thread's has been given back: what is counted then, by the
// making itself or by destructors of other keys, goes to the shared slot.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool goesWithoutSlot = false;

void giveBack(void* slot) {
  goesWithoutSlot = true;
  detail::ownCounts = nullptr;
  static_cast<ThreadCounts*>(slot)->owned.store(false, std::memory_order_release);
}

struct Key {
  pthread_key_t key = 0;
  bool made = pthread_key_create(&key, giveBack) == 0;
};

const Key& slotKey() {
  static const Key key;
  return key;
}

bool claim(ThreadCounts& slot) {
  bool owned = false;
  return !slot.owned.load(std::memory_order_relaxed) &&
         slot.owned.compare_exchange_strong(owned, true, std::memory_order_acquire);
}

ThreadCounts* claimFree() {
  for (Chunk* chunk = chunks.load(std::memory_order_acquire); chunk != nullptr;
       chunk = chunk->next.load(std::memory_order_relaxed))
    for (ThreadCounts& slot : chunk->slots)
      if (claim(slot)) return &slot;
  return nullptr;
}

ThreadCounts* claimFromNewChunk() {
  void* const page = linux_backend::takePages(sizeof(Chunk));
  if (page == nullptr) return nullptr;
  Chunk* const chunk = new (page) Chunk;
  chunk->slots[0].owned.store(true, std::memory_order_relaxed);
  Chunk* first = chunks.load(std::memory_order_relaxed);
  do {
    chunk->next.store(first, std::memory_order_relaxed);
  } while (!chunks.compare_exchange_weak(first, chunk, std::memory_order_release));
  return &chunk->slots[0];
}

// Without a key nobody would give the slot back.
ThreadCounts* makeSlot() {
  if (!slotKey().made) return nullptr;
  ThreadCounts* slot = claimFree();
  if (slot == nullptr) slot = claimFromNewChunk();
  if (slot == nullptr) return nullptr;
  if (pthread_setspecific(slotKey().key, slot) != 0) {
    slot->owned.store(false, std::memory_order_release);
    return nullptr;
  }
  // Never used so far, so nobody else writes to it.
  if (slot->objects.load(std::memory_order_relaxed) == ThreadCounts::kSharedObjects)
    slot->objects.store(detail::objectsOfNewSlots.load(std::memory_order_relaxed), std::memory_order_relaxed);
  return slot;
}

}  // namespace

ThreadCounts& threadCounts() noexcept {
  if (detail::ownCounts != nullptr) return *detail::ownCounts;
  if (goesWithoutSlot) return sharedCounts;
  const int savedErrno = errno;
  goesWithoutSlot = true;
  ThreadCounts* const made = makeSlot();
  detail::ownCounts = made;
  errno = savedErrno;
  return made != nullptr ? *made : sharedCounts;
}

void detail::addLiveBlocksSlowly(std::int64_t change) noexcept {
  ThreadCounts& counts = threadCounts();
  if (&counts == &sharedCounts)
    counts.blocks.fetch_add(change, std::memory_order_relaxed);
  else
    addLiveBlocks(change);
}

void visitThreadCounts(ThreadCountsVisit* visit, void* context) noexcept {
  if (!visit(sharedCounts, context)) return;
  for (Chunk* chunk = chunks.load(std::memory_order_acquire); chunk != nullptr;
       chunk = chunk->next.load(std::memory_order_relaxed))
    for (ThreadCounts& slot : chunk->slots)
      if (!visit(slot, context)) return;
}

std::int64_t liveBlocks() noexcept {
  std::int64_t sum = 0;
  visitThreadCounts(
      [](ThreadCounts& counts, void* context) {
        *static_cast<std::int64_t*>(context) += counts.blocks.load(std::memory_order_relaxed);
        return true;
      },
      &sum);
  return sum;
}

}  // namespace qbv
