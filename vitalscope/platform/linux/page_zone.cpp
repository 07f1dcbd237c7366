#include "vitalscope/platform/linux/page_zone.h"

#include <sys/mman.h>
#include <sys/prctl.h>

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "vitalscope/platform/linux/own_region.h"
#include "vitalscope/platform/linux/pages.h"

namespace qbv::linux_backend {

namespace {

constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kHeader = kOwnRegionBlock;
constexpr std::size_t kPage = 4096;
constexpr std::size_t kLargest = static_cast<std::size_t>(-1) / 4;

// The hook that allocates here promises its thread an unchanged errno.
class KeepErrno {
 public:
  KeepErrno() : saved_(errno) {}
  ~KeepErrno() { errno = saved_; }
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;

 private:
  int saved_;
};

}  // namespace

// Stands at every multiple of 64 KB at which blocks begin, so a block's is found from its address.
struct PageZone::Chunk {
  OwnRegion region;       // blocks here may hold addresses of the program's blocks
  std::size_t sizeClass;  // kClasses: one large block
};

struct PageZone::FreeBlock {
  FreeBlock* next;
};

PageZone* PageZone::create() {
  static_assert(sizeof(PageZone) <= kPage && sizeof(Chunk) <= kHeader);
  void* const page = takePages(kPage);
  return page == nullptr ? nullptr : new (page) PageZone;
}

std::size_t PageZone::classOf(std::size_t size) {
  if (size <= kFineClasses * 16) return size == 0 ? 0 : (size - 1) / 16;
  return kFineClasses + static_cast<std::size_t>(std::bit_width((size - 1) >> 10));
}

std::size_t PageZone::sizeOf(std::size_t sizeClass) {
  if (sizeClass < kFineClasses) return (sizeClass + 1) * 16;
  return std::size_t{1024} << (sizeClass - kFineClasses);
}

void* PageZone::malloc(std::size_t size) noexcept {
  return size > kLargestSmall ? takeLarge(size) : takeSmall(size);
}

void* PageZone::calloc(std::size_t count, std::size_t size) noexcept {
  std::size_t bytes = 0;
  if (__builtin_mul_overflow(count, size, &bytes)) return nullptr;
  void* const block = malloc(bytes);
  // A large block's pages are new, and stay untouched.
  if (block != nullptr && bytes <= kLargestSmall) std::memset(block, 0, bytes);
  return block;
}

void PageZone::free(void* pointer) noexcept {
  if (pointer == nullptr) return;
  auto* const chunk = reinterpret_cast<Chunk*>(reinterpret_cast<std::uintptr_t>(pointer) & ~(kChunk - 1));
  if (chunk->sizeClass == kClasses) {
    const KeepErrno keep;
    munmap(chunk, chunk->region.size);
    return;
  }
  SizeClass& sizeClass = classes_[chunk->sizeClass];
  sizeClass.free = new (pointer) FreeBlock{sizeClass.free};
}

void* PageZone::takeSmall(std::size_t size) {
  const std::size_t number = classOf(size);
  SizeClass& sizeClass = classes_[number];
  FreeBlock* const block = sizeClass.free;
  if (block == nullptr) return takeUnused(number);
  sizeClass.free = block->next;
  return block;
}

void* PageZone::takeUnused(std::size_t number) {
  SizeClass& sizeClass = classes_[number];
  const std::size_t bytes = sizeOf(number);
  if (static_cast<std::size_t>(sizeClass.end - sizeClass.next) < bytes && !openChunk(number)) return nullptr;
  return std::exchange(sizeClass.next, sizeClass.next + bytes);
}

bool PageZone::openChunk(std::size_t sizeClass) {
  const KeepErrno keep;
  if (reserveLeft_ == 0) {
    reserve_ = static_cast<char*>(takeAligned(kReserve));
    if (reserve_ == nullptr) return false;
    reserveLeft_ = kReserve;
  }
  char* const base = std::exchange(reserve_, reserve_ + kChunk);
  reserveLeft_ -= kChunk;
  new (base) Chunk{ownRegionAt(base, kChunk), sizeClass};
  classes_[sizeClass].next = base + kHeader;
  classes_[sizeClass].end = base + kChunk;
  return true;
}

void* PageZone::takeLarge(std::size_t size) {
  if (size > kLargest) return nullptr;
  const KeepErrno keep;
  const std::size_t mapped = (size + kHeader + kChunk - 1) & ~(kChunk - 1);
  void* const base = takeAligned(mapped);
  if (base == nullptr) return nullptr;
  new (base) Chunk{ownRegionAt(base, mapped, size), kClasses};
  return static_cast<char*>(base) + kHeader;
}

// `size` is a multiple of kChunk. Takes more than wanted and gives back what is before and after.
void* PageZone::takeAligned(std::size_t size) {
  char* const pages = static_cast<char*>(takePages(size + kChunk));
  if (pages == nullptr) return nullptr;
  const std::size_t before = -reinterpret_cast<std::uintptr_t>(pages) & (kChunk - 1);
  if (before != 0) munmap(pages, before);
  munmap(pages + before + size, kChunk - before);
  nameMapping(pages + before, size);
  return pages + before;
}

void PageZone::setName(const char* name) {
  std::strncpy(name_.data(), name == nullptr ? "" : name, name_.size() - 1);
}

// Kernels that do not know the request refuse it.
void PageZone::nameMapping(void* pages, std::size_t size) const {
#if defined(PR_SET_VMA) && defined(PR_SET_VMA_ANON_NAME)
  if (name_[0] != '\0')
    prctl(PR_SET_VMA, PR_SET_VMA_ANON_NAME, reinterpret_cast<unsigned long>(pages), size, name_.data());
#else
  (void)pages, (void)size;
#endif
}

}  // namespace qbv::linux_backend
