#include "vitalscope/platform/allocator.h"

#include <cstdlib>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/page_zone.h"

constinit malloc_logger_t* malloc_logger = nullptr;

// Null where the interposer is not linked: tests, and builds with sanitizers.
extern "C" [[gnu::weak, gnu::visibility("hidden")]] void* qbv_interposed_malloc(std::size_t size) noexcept;

namespace qbv::linux_backend {

namespace {

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

  // What the name means to this library is what it means to everybody whom the loader bound without one of
  // their own.
  bool mallocLoggerSeesHeap() override {
    void* (*volatile own)(std::size_t) = qbv_interposed_malloc;
    void* (*volatile everybodys)(std::size_t) = std::malloc;
    return own != nullptr && own == everybodys;
  }
};

}  // namespace

Allocator& allocator() {
  static LinuxAllocator* const instance = new LinuxAllocator;
  return *instance;
}

}  // namespace qbv::linux_backend
