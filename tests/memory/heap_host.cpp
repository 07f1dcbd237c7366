// A program that allocates from before its first constructor to after its last destructor, with a logger in
// place all the time that counts per thread. At the very end it prints "live N" (what it knows to be alive of
// its own blocks is 3).
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vitalscope/memory/QBAllocateMemoryMonitor.h"
#include "vitalscope/platform/allocator.h"
#include "vitalscope/platform/thread_counts.h"

#if defined(HEAP_HOST_OWN_ALLOCATOR)
#include <atomic>

// A bump allocator that frees nothing.
namespace {
alignas(16) char region[64 << 20];
std::atomic<std::size_t> used{0};
}  // namespace

extern "C" {
void* malloc(std::size_t size) {
  const std::size_t at = used.fetch_add((size + 31) & ~std::size_t{15}) + 16;
  if (at + size > sizeof region) return nullptr;
  std::memcpy(region + at - 16, &size, sizeof size);
  return region + at;
}
void free(void*) {}
void* calloc(std::size_t count, std::size_t size) {
  return malloc(count * size);
}
void* realloc(void* block, std::size_t size) {
  void* const grown = malloc(size);
  if (block == nullptr || grown == nullptr) return grown;
  std::size_t old = 0;
  std::memcpy(&old, static_cast<char*>(block) - 16, sizeof old);
  std::memcpy(grown, block, old < size ? old : size);
  return grown;
}
}
#endif

namespace {

void* (*volatile allocate)(std::size_t) = std::malloc;
std::int64_t own = 0;  // blocks that this file asked for

[[maybe_unused]] void count(std::uint32_t type, std::uintptr_t, std::uintptr_t argument2, std::uintptr_t,
                            std::uintptr_t, std::uint32_t) {
  if (type == 10 && argument2 == 12345) {
    ++own;
    qbv::addLiveBlocks(1);
  }
}

void afterAll() {
  if (own == 0) return;
  static_cast<void>(allocate(12345));
  char text[32];
  const int size = std::snprintf(text, sizeof text, "live %d\n", static_cast<int>(qbv::liveBlocks()));
  if (write(STDOUT_FILENO, text, static_cast<std::size_t>(size)) != size) _exit(1);
}

#if !defined(HEAP_HOST_OWN_ALLOCATOR)
// Runs before the constructors of every library.
void beforeAll() {
  malloc_logger = count;
  static_cast<void>(allocate(12345));
}
[[gnu::section(".preinit_array"), gnu::used]] void (*const first)() = beforeAll;
#endif
[[gnu::section(".fini_array.00001"), gnu::used]] void (*const last)() = afterAll;

}  // namespace

int main() {
#if defined(HEAP_HOST_OWN_ALLOCATOR)
  for (int i = 0; i < 2; ++i) QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  static_cast<void>(allocate(1));
  std::printf("counted %d\n", static_cast<int>(QBAllocateMemoryMonitor::currentAllocMemoryLiveCount()));
#else
  static_cast<void>(allocate(12345));
#endif
  return 0;
}
