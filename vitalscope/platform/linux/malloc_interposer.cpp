// The malloc family of this process: tells malloc_logger, or counts, and goes on to the C library. Part of
// the shared library only: where this object is linked, it is the process's allocator.
//
// It runs from the loader's first steps to the process's last, on every thread. So it calls nothing but the C
// library's own entry points, which need no look-up, and has no state but the logger.
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/allocator.h"
#include "vitalscope/platform/linux/counted_events.h"
#include "vitalscope/platform/thread_counts.h"

#if !defined(QBV_SANITIZED)  // a sanitizer brings the allocator that it checks

extern "C" {

void* __libc_malloc(std::size_t size) noexcept;
void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
void* __libc_realloc(void* block, std::size_t size) noexcept;
void* __libc_memalign(std::size_t alignment, std::size_t size) noexcept;
void* __libc_valloc(std::size_t size) noexcept;
void* __libc_pvalloc(std::size_t size) noexcept;
void __libc_free(void* block) noexcept;

}  // extern "C"

namespace {

using namespace qbv;

constexpr std::uint32_t kAllocation = MALLOC_LOG_ALLOCATE | MALLOC_LOG_HAS_ZONE;
constexpr std::uint32_t kCleared = kAllocation | MALLOC_LOG_CLEARED;
constexpr std::uint32_t kFree = MALLOC_LOG_DEALLOCATE | MALLOC_LOG_HAS_ZONE;
constexpr std::uint32_t kReallocation = kAllocation | MALLOC_LOG_DEALLOCATE;

// Its address stands for the C library's heap.
constinit const char heapName[] = "DefaultMallocZone";

[[gnu::always_inline]] inline malloc_logger_t* logger() {
  return __atomic_load_n(&malloc_logger, __ATOMIC_RELAXED);
}

[[gnu::always_inline]] inline std::uintptr_t word(const void* pointer) {
  return reinterpret_cast<std::uintptr_t>(pointer);
}

[[gnu::always_inline]] inline void tell(malloc_logger_t* log, std::uint32_t type, std::uintptr_t argument2,
                                        std::uintptr_t argument3, std::uintptr_t result) {
  log(type, word(heapName), argument2, argument3, result, 1);
}

[[gnu::always_inline]] inline bool leavesCountingToUs(malloc_logger_t* log) {
  return log == linux_backend::countedEvents.logger.load(std::memory_order_relaxed);
}

[[gnu::always_inline]] inline bool isCounted(malloc_logger_t* log, std::size_t size) {
  return leavesCountingToUs(log) && size < linux_backend::countedEvents.below.load(std::memory_order_relaxed);
}

[[gnu::noinline, gnu::cold]] void* countFirst(void* block) {
  addLiveBlocks(1);
  return block;
}

// What an event tells twice the same says nothing to a logger that counts.
template <auto allocate, class... Arguments>
struct Counting {
  [[gnu::noinline]] static void* call(Arguments... arguments, std::size_t size) {
    void* const block = allocate(arguments...);
    if (block == nullptr || word(block) == size) [[unlikely]]
      return block;
    if (!hasThreadCounts()) [[unlikely]]
      return countFirst(block);
    addLiveBlocks(1);
    return block;
  }
};

[[gnu::noinline, gnu::cold]] void countAndFreeFirst(void* block) {
  if (block != nullptr) addLiveBlocks(-1);
  __libc_free(block);
}

// The event's own arguments come first, so that they stay in the registers in which they came.
template <auto allocate, std::uint32_t type, class... Arguments>
struct Telling {
  [[gnu::noinline]] static void* call(Arguments... arguments, std::size_t size, malloc_logger_t* log) {
    void* const block = allocate(arguments...);
    if (block != nullptr) tell(log, type, size, 0, word(block));
    return block;
  }
};

// Without a logger this is a jump to the C library, with one a jump to a function above: either way there is
// one frame between an event's caller and the logger.
template <auto allocate, std::uint32_t type, class... Arguments>
[[gnu::always_inline]] inline void* told(std::size_t size, Arguments... arguments) {
  malloc_logger_t* const log = logger();
  if (log == nullptr) return allocate(arguments...);
  if (isCounted(log, size)) [[likely]]
    return Counting<allocate, Arguments...>::call(arguments..., size);
  return Telling<allocate, type, Arguments...>::call(arguments..., size, log);
}

[[gnu::noinline]] void tellAndFree(void* block, malloc_logger_t* log) {
  if (block != nullptr) tell(log, kFree, word(block), 0, 0);
  __libc_free(block);
}

[[gnu::always_inline]] inline void* reallocTold(void* block, std::size_t size) {
  if (block == nullptr) return told<__libc_malloc, kAllocation>(size, size);
  malloc_logger_t* const log = logger();
  if (log == nullptr) return __libc_realloc(block, size);
  if (size == 0) {
    tell(log, kFree, word(block), 0, 0);
    return __libc_realloc(block, 0);
  }
  const std::uintptr_t old = word(block);
  void* const moved = __libc_realloc(block, size);
  if (moved != nullptr) tell(log, kReallocation, old, size, word(moved));
  return moved;
}

}  // namespace

extern "C" {

QBV_EXPORT void* malloc(std::size_t size) noexcept {
  return told<__libc_malloc, kAllocation>(size, size);
}

QBV_EXPORT void* calloc(std::size_t count, std::size_t size) noexcept {
  // A product that does not fit fails, and is not told.
  return told<__libc_calloc, kCleared>(count * size, count, size);
}

QBV_EXPORT void* realloc(void* block, std::size_t size) noexcept {
  return reallocTold(block, size);
}

QBV_EXPORT void* reallocarray(void* block, std::size_t count, std::size_t size) noexcept {
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) {
    errno = ENOMEM;
    return nullptr;
  }
  return reallocTold(block, bytes);
}

QBV_EXPORT void free(void* block) noexcept {
  malloc_logger_t* const log = logger();
  if (log == nullptr) return __libc_free(block);
  if (!leavesCountingToUs(log)) [[unlikely]]
    return tellAndFree(block, log);
  if (block == nullptr || !hasThreadCounts()) [[unlikely]]
    return countAndFreeFirst(block);
  addLiveBlocks(-1);
  __libc_free(block);
}

QBV_EXPORT int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  const bool powerOfTwo = alignment != 0 && (alignment & (alignment - 1)) == 0;
  if (!powerOfTwo || alignment < sizeof(void*)) return EINVAL;
  void* const made = told<__libc_memalign, kAllocation>(size, alignment, size);
  if (made == nullptr) return ENOMEM;
  *block = made;
  return 0;
}

QBV_EXPORT void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return told<__libc_memalign, kAllocation>(size, alignment, size);
}

QBV_EXPORT void* memalign(std::size_t alignment, std::size_t size) noexcept {
  return told<__libc_memalign, kAllocation>(size, alignment, size);
}

QBV_EXPORT void* valloc(std::size_t size) noexcept {
  return told<__libc_valloc, kAllocation>(size, size);
}

QBV_EXPORT void* pvalloc(std::size_t size) noexcept {
  return told<__libc_pvalloc, kAllocation>(size, size);
}

// Where this library's own malloc is, whoever's the process uses.
[[gnu::alias("malloc"), gnu::malloc, gnu::alloc_size(1), gnu::visibility("hidden")]] void*
qbv_interposed_malloc(std::size_t size) noexcept;

}  // extern "C"

#endif
