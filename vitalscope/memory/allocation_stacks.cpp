#include <algorithm>
#include <array>
#include <mutex>

#include "vitalscope/memory/QBAllocationFunctions.h"
#include "vitalscope/memory/QBRapidCRC64.h"
#include "vitalscope/memory/allocation_state.h"
#include "vitalscope/platform/monitored_process.h"
#include "vitalscope/platform/platform.h"

namespace qbv {

namespace {

constexpr std::uint64_t kMaxDepth = qb_stack_max_depth;

constinit std::atomic<const StackStore*> made{nullptr};
constinit std::mutex allocRecordLock;

// Checksum of the words, with a zero word behind an odd number of them: it takes them in pairs.
std::uint64_t checksumOfWords(std::uint32_t* words, std::uint64_t count) {
  if (count % 2 != 0) words[count++] = 0;
  return rapid_crc64(0, words, count * sizeof(std::uint32_t));
}

void insert(const StackStore& store, std::uint64_t address, const base_ptr_log& block, base_stack_t& stack) {
  const std::lock_guard lock(allocRecordLock);
  if (store.oom_ptrs_hashmap->insertPtr(address, &block))
    store.oom_stacks_hashmap->insertStackAndIncreaseCountIfExist(block.stack_id, &stack);
}

}  // namespace

const StackStore& stackStore() noexcept {
  static constinit const StackStore none{};
  const StackStore* const present = made.load(std::memory_order_acquire);
  return present == nullptr ? none : *present;
}

void makeStackStore(const std::string& logPath, std::uint64_t sizeThreshold) {
  Allocator& allocator = platform().allocator;
  MallocZone* const zone = allocator.malloc_create_zone(0, 0);
  if (zone == nullptr) return;
  allocator.malloc_set_zone_name(zone, "QBAllocateMemoryMonitor");
  auto* const store = new StackStore;
  store->global_memory_zone = zone;
  store->oom_ptrs_hashmap = new QBPtrsHashmap(QBBaseHashmap::kPtrsBuckets, zone);
  store->log_path = new std::string(logPath);
  store->oom_stacks_hashmap =
      new QBStacksHashmap(QBBaseHashmap::kStacksBuckets, zone, logPath, sizeThreshold);
  made.store(store, std::memory_order_release);
}

}  // namespace qbv

void recordMallocStack(std::uint64_t address, std::uint32_t size, std::uint64_t skipCount) {
  // In a forked child the lock may be held by a thread that is not there.
  if (qbv::forkedChild()) return;
  std::array<std::uint64_t, qbv::kMaxDepth> frames;
  std::uint64_t stackId = 0;
  const std::uint64_t depth = recordBacktrace(true, 0, 0, skipCount, frames.data(), &stackId, frames.size());
  const qbv::StackStore& store = qbv::stackStore();
  if (depth == 0 || store.oom_ptrs_hashmap == nullptr) return;
  const base_ptr_log block{stackId, size};
  base_stack_t stack{static_cast<std::uint32_t>(depth), frames.data(), size, 0, 1};
  qbv::insert(store, address, block, stack);
}

std::uint64_t recordBacktrace(bool keepFrames, std::uint32_t hashSeed, std::uint64_t skipHash,
                              std::uint64_t skipCount, std::uint64_t* frames, std::uint64_t* stackId,
                              std::uint64_t maxDepth) {
  std::array<void*, qbv::kMaxDepth> captured;
  const auto count = static_cast<std::uint64_t>(
      qbv::platform().task.backtrace(captured.data(), static_cast<int>(captured.size())));
  const std::uint64_t depth = std::min(count, maxDepth);
  if (depth <= 3 || depth - 3 <= skipCount) return 0;
  const auto address = [&](std::uint64_t index) { return reinterpret_cast<std::uint64_t>(captured[index]); };
  std::array<std::uint32_t, qbv::kMaxDepth> words;
  words[0] = hashSeed;
  std::uint64_t kept = 0;
  if (keepFrames || skipHash == 0) {
    for (std::uint64_t index = skipCount; index < depth - 2; ++index) {
      frames[kept++] = address(index);
      words[kept] = static_cast<std::uint32_t>(address(index));
    }
  }
  frames[kept] = address(count - 2);
  if (skipHash != 0 || kept == 0) return 0;
  *stackId = qbv::checksumOfWords(words.data(), kept + 1);
  return kept + 1;
}
