#include "vitalscope/platform/allocator.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/counted_events.h"
#include "vitalscope/platform/linux/page_zone.h"

constinit malloc_logger_t* malloc_logger = nullptr;

// Null where the interposer is not linked: tests, and builds with sanitizers.
extern "C" [[gnu::weak, gnu::visibility("hidden")]] void* qbv_interposed_malloc(std::size_t size) noexcept;

namespace qbv::linux_backend {

constinit CountedEvents countedEvents;

namespace {

// A logger that for a moment stands in front of the one in use and listens for one allocation.
namespace probe {

constexpr std::size_t kBytes = 4099;

constinit std::mutex lock;
constinit std::atomic<malloc_logger_t*> next{nullptr};
constinit std::atomic<const void*> thread{nullptr};
constinit std::atomic<bool> heard{false};

void listen(std::uint32_t type, std::uintptr_t zone, std::uintptr_t argument2, std::uintptr_t argument3,
            std::uintptr_t result, std::uint32_t framesToSkip) {
  if (argument2 == kBytes && thread.load() == __builtin_thread_pointer()) heard.store(true);
  malloc_logger_t* const present = next.load();
  if (present != nullptr) present(type, zone, argument2, argument3, result, framesToSkip + 1);
}

bool isHeard(void* (*allocate)(std::size_t)) {
  const std::lock_guard guard(lock);
  heard.store(false);
  thread.store(__builtin_thread_pointer());
  next.store(__atomic_load_n(&malloc_logger, __ATOMIC_ACQUIRE));
  __atomic_store_n(&malloc_logger, &listen, __ATOMIC_RELEASE);
  std::free(allocate(kBytes));
  malloc_logger_t* listening = &listen;  // a logger that somebody else has set meanwhile stays
  __atomic_compare_exchange_n(&malloc_logger, &listening, next.load(), false, __ATOMIC_ACQ_REL,
                              __ATOMIC_RELAXED);
  thread.store(nullptr);
  return heard.load();
}

}  // namespace probe

class LinuxAllocator final : public Allocator {
 public:
  MallocZone* malloc_create_zone(std::size_t, unsigned) override { return PageZone::create(); }
  void malloc_set_zone_name(MallocZone* zone, const char* name) override {
    if (zone != nullptr) static_cast<PageZone*>(zone)->setName(name);
  }

  bool installMallocLogger(malloc_logger_t* logger) override {
    malloc_logger_t* none = nullptr;
    return __atomic_compare_exchange_n(&malloc_logger, &none, logger, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_RELAXED);
  }

  void countSmallBlocksFor(malloc_logger_t* logger, std::size_t below) override {
    if (logger != nullptr) countedEvents.below.store(below, std::memory_order_relaxed);
    countedEvents.logger.store(logger, std::memory_order_release);
  }

  // What the name means to this library is what it means to everybody whom the loader bound without one of
  // their own. A program that is linked to a fixed address may give it the address of a jump of its own.
  bool mallocLoggerSeesHeap() override {
    void* (*volatile own)(std::size_t) = qbv_interposed_malloc;
    void* (*volatile everybodys)(std::size_t) = std::malloc;
    return own != nullptr && (own == everybodys || probe::isHeard(everybodys));
  }
};

}  // namespace

Allocator& allocator() {
  static LinuxAllocator* const instance = new LinuxAllocator;
  return *instance;
}

}  // namespace qbv::linux_backend
