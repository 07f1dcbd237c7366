// A zone of memory in pages of its own.
#pragma once

#include <array>
#include <cstddef>

#include "vitalscope/platform/zone.h"

namespace qbv::linux_backend {

// Small blocks come from chunks of 64 KB, one size each, and go back to their size's list; blocks of more
// than 16 KB are mappings of their own, untouched pages of which cost nothing. Blocks are aligned to 16.
// Lives for ever.
class PageZone final : public MallocZone {
 public:
  // Null when the system has no memory.
  static PageZone* create();

  void* malloc(std::size_t size) noexcept override;
  void* calloc(std::size_t count, std::size_t size) noexcept override;
  void free(void* pointer) noexcept override;

  // For pages that are mapped from now on as well.
  void setName(const char* name);

  static constexpr std::size_t kLargestSmall = std::size_t{16} * 1024;

 private:
  static constexpr std::size_t kFineClasses = 32;  // 16 to 512 in steps of 16
  static constexpr std::size_t kClasses = kFineClasses + 5;
  static constexpr std::size_t kReserve = std::size_t{1} << 20;
  struct Chunk;
  struct FreeBlock;
  struct SizeClass {
    FreeBlock* free = nullptr;
    char* next = nullptr;  // never used yet, up to end
    char* end = nullptr;
  };

  PageZone() = default;
  ~PageZone() override = default;
  static std::size_t classOf(std::size_t size);
  static std::size_t sizeOf(std::size_t sizeClass);
  void* takeSmall(std::size_t size);
  void* takeUnused(std::size_t sizeClass);
  void* takeLarge(std::size_t size);
  bool openChunk(std::size_t sizeClass);
  void* takeAligned(std::size_t size);
  void nameMapping(void* pages, std::size_t size) const;

  std::array<SizeClass, kClasses> classes_{};
  char* reserve_ = nullptr;  // chunks not used yet
  std::size_t reserveLeft_ = 0;
  std::array<char, 32> name_{};
};

}  // namespace qbv::linux_backend
