#include "vitalscope/platform/moved_returns.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <new>

#include "vitalscope/platform/linux/pages.h"
#include "vitalscope/platform/linux/return_marks.h"
#include "vitalscope/platform/linux/safe_read.h"

namespace qbv {

namespace {

using linux_backend::MovedEntry;
using linux_backend::MovedWord;
using linux_backend::ReturnMark;
using linux_backend::safeRead;

struct Place {
  std::atomic<std::uint32_t> thread{0};  // 0: free
  MovedReturns returns{};
};
// One page, never given back.
struct Chunk {
  std::atomic<Chunk*> next{nullptr};
  std::array<Place, 72> places{};
};
static_assert(sizeof(Chunk) <= 4096);

constinit std::atomic<Chunk*> chunks{nullptr};
constinit thread_local Place* ownPlace [[gnu::tls_model("initial-exec")]] = nullptr;

Place* findPlace(std::uint32_t thread) noexcept {
  for (Chunk* chunk = chunks.load(std::memory_order_acquire); chunk != nullptr;
       chunk = chunk->next.load(std::memory_order_relaxed))
    for (Place& place : chunk->places)
      if (place.thread.load(std::memory_order_acquire) == thread) return &place;
  return nullptr;
}

bool claim(Place& place, std::uint32_t thread) noexcept {
  std::uint32_t none = 0;
  return place.thread.compare_exchange_strong(none, thread);
}

Place* claimPlace(std::uint32_t thread) noexcept {
  for (;;) {
    if (Place* const place = findPlace(0)) {
      if (claim(*place, thread)) return place;
      continue;
    }
    void* const page = linux_backend::takePages(4096);
    if (page == nullptr) return nullptr;
    auto* const chunk = new (page) Chunk;
    Chunk* first = chunks.load();
    do chunk->next.store(first);
    while (!chunks.compare_exchange_weak(first, chunk));
  }
}

template <class T>
bool safeReadValue(std::uint64_t address, T& value) noexcept {
  return safeRead(address, sizeof value, &value) == sizeof value;
}

// Whether the entry is one of those that the mark means. Asked after the entry was read.
bool isMarked(const ReturnMark& mark, std::uint64_t entry) noexcept {
  std::uint64_t number = 0;
  const std::uint64_t at =
      entry + kMovedReturnEntryBytes - sizeof(MovedReturn) + offsetof(MovedReturn, entryNumber);
  return safeReadValue(at, number) && number != 0 && number <= mark.entriesMade;
}

MovedWord readMovedWord(const ReturnMark& mark, std::uint64_t address, std::uint64_t& word) noexcept {
  MovedReturns returns;
  if (!safeReadValue(mark.returns, returns)) return MovedWord::elsewhere;
  // An entry that was given back since serves as well, as long as no other call has taken it.
  const std::uint64_t index = (address - returns.entries) / kMovedReturnEntryBytes;
  if (index >= returns.mostEntries || !safeReadValue(address, word)) return MovedWord::elsewhere;
  const std::uint64_t entry = returns.entries + index * kMovedReturnEntryBytes;
  return isMarked(mark, entry) ? MovedWord::found : MovedWord::gone;
}

bool findMovedEntry(const ReturnMark& mark, std::uint64_t returnAddress, std::uint64_t stackPointer,
                    MovedEntry& entry) noexcept {
  MovedReturns returns;
  std::uint64_t address = 0;
  if (!safeReadValue(mark.returns, returns) || returns.returnPoint != returnAddress ||
      !safeReadValue(returns.innermost, address))
    return false;
  for (; address >= returns.entries; address -= kMovedReturnEntryBytes) {
    MovedReturn candidate;
    if (!safeReadValue(address + kMovedReturnEntryBytes - sizeof candidate, candidate)) return false;
    if (candidate.position - stackPointer >= 16) continue;
    entry = {address, static_cast<unsigned>(returns.entryRegister)};
    return isMarked(mark, address);
  }
  return false;
}

constexpr linux_backend::MovedReturnReader kReader{readMovedWord, findMovedEntry};

}  // namespace

bool setMovedReturns(const MovedReturns* returns) noexcept {
  const auto thread = static_cast<std::uint32_t>(syscall(SYS_gettid));
  if (returns == nullptr) {
    Place* const place = ownPlace;
    ownPlace = nullptr;
    if (place != nullptr) place->thread.store(0, std::memory_order_release);
    return true;
  }
  Place* const place = ownPlace != nullptr ? ownPlace : claimPlace(thread);
  if (place == nullptr) return false;
  place->returns = *returns;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  ownPlace = place;
  return true;
}

namespace linux_backend {

__attribute__((no_sanitize("address", "thread", "undefined"))) ReturnMark ownReturnMark() noexcept {
  const Place* const place = ownPlace;
  if (place == nullptr) return {};
  return {&kReader, reinterpret_cast<std::uint64_t>(&place->returns),
          *reinterpret_cast<const std::uint64_t*>(place->returns.entriesMade)};
}

ReturnMark returnMarkOf(std::uint32_t thread) noexcept {
  Place* const place = thread == 0 ? nullptr : findPlace(thread);
  if (place == nullptr) return {};
  ReturnMark mark{&kReader, reinterpret_cast<std::uint64_t>(&place->returns), 0};
  MovedReturns returns;
  if (!safeReadValue(mark.returns, returns) || !safeReadValue(returns.entriesMade, mark.entriesMade))
    return {};
  return mark;
}

}  // namespace linux_backend

}  // namespace qbv
