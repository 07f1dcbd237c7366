#include "memory_work.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr std::size_t kMegabyte = 1024 * 1024;

// A stack that is overwritten, so that it leads to no block any more.
[[gnu::noinline]] void forgetStack() {
  volatile char old[64 * 1024];
  for (volatile char& byte : old) byte = 0;
}

// Notes where a block came from, if the library is there.
[[gnu::always_inline]] inline void note(const void* block, std::size_t bytes) {
  using Record = void(std::uint64_t, std::uint32_t, std::uint64_t);
  static auto* const record = reinterpret_cast<Record*>(dlsym(RTLD_DEFAULT, "recordMallocStack"));
  // The two innermost frames are the library's own.
  if (record != nullptr) record(reinterpret_cast<std::uint64_t>(block), static_cast<std::uint32_t>(bytes), 2);
}

[[gnu::noinline]] void takeAndNote() {
  static std::vector<void*>& kept = *new std::vector<void*>;
  kept.push_back(std::malloc(kMegabyte));
  note(kept.back(), kMegabyte);
  asm volatile("");
}

[[gnu::noinline]] void loseOne(std::size_t bytes) {
  auto* const block = static_cast<char*>(std::malloc(bytes));
  std::memcpy(block, kLostText, sizeof kLostText);
  note(block, bytes);
  asm volatile("");
}

}  // namespace

void keepBlock(std::size_t megabytes) {
  static std::vector<void*>& kept = *new std::vector<void*>;
  kept.push_back(std::malloc(megabytes * kMegabyte));
}

void keepThumbnails(std::size_t megabytes) {
  for (; megabytes > 0; --megabytes) {
    auto* const block = static_cast<char*>(std::malloc(kMegabyte));
    for (std::size_t offset = 0; block != nullptr && offset < kMegabyte; offset += 1024) block[offset] = 1;
    asm volatile("" : : "r"(block) : "memory");
  }
}

__attribute__((noinline)) void loseDrafts(std::size_t count, std::size_t bytes) {
  for (; count > 0; --count) loseOne(bytes);
  forgetStack();
}

__attribute__((noinline)) void loadSlides(std::size_t megabytes) {
  for (; megabytes > 0; --megabytes) takeAndNote();
  asm volatile("");
}

__attribute__((noinline)) void renderSlides(std::size_t megabytes) {
  for (std::size_t left = 2 * megabytes; left > 0; --left) takeAndNote();
  asm volatile("");
}
