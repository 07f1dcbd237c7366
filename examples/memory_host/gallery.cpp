#include "gallery.h"

#include <cstdint>
#include <cstdlib>

#include "vitalscope/memory/QBAllocationFunctions.h"

namespace {

constexpr std::size_t kMegabyte = std::size_t{1024} * 1024;
constexpr std::size_t kPage = 4096;
constexpr std::uint64_t kLibraryFrames = 2;  // recordMallocStack and what it calls

__attribute__((noinline)) void takePixels(std::size_t bytes) {
  auto* const pixels = static_cast<unsigned char*>(std::malloc(bytes));
  if (pixels == nullptr) return;
  for (std::size_t offset = 0; offset < bytes; offset += kPage) pixels[offset] = 255;
  recordMallocStack(reinterpret_cast<std::uintptr_t>(pixels), static_cast<std::uint32_t>(bytes),
                    kLibraryFrames);
}

}  // namespace

void cacheThumbnails(std::size_t megabytes) {
  for (; megabytes > 0; --megabytes) takePixels(kMegabyte);
}

void keepUndoHistory(std::size_t megabytes) {
  constexpr std::size_t kStep = std::size_t{16} * 1024;
  for (std::size_t step = 0; step < megabytes * kMegabyte / kStep; ++step) takePixels(kStep);
}
