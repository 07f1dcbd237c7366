// A process whose blocks come from an allocator of its own; otherwise like the plainest of the other victims.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>

namespace {

constexpr std::size_t kSpace = std::size_t{256} << 20;
constexpr std::size_t kHeader = 16;
std::atomic<std::size_t> used{0};

std::byte* space() {
  static std::byte* const memory = static_cast<std::byte*>(
      mmap(nullptr, kSpace, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
  return memory;
}

}  // namespace

extern "C" {
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  const std::size_t at = used.fetch_add(size + alignment + kHeader);
  if (at + size + alignment + kHeader > kSpace) return nullptr;
  const std::size_t begin = (at + kHeader + alignment - 1) / alignment * alignment;
  std::memcpy(space() + begin - kHeader, &size, sizeof size);
  return space() + begin;
}
void* malloc(std::size_t size) {
  return aligned_alloc(16, size);
}
void free(void*) {}
void* calloc(std::size_t count, std::size_t size) {
  return malloc(count * size);
}
void* realloc(void* block, std::size_t size) {
  void* const moved = malloc(size);
  std::size_t before = 0;
  if (block != nullptr) std::memcpy(&before, static_cast<std::byte*>(block) - kHeader, sizeof before);
  if (before > 0) std::memcpy(moved, block, before < size ? before : size);
  return moved;
}
}

int main() {
  for (int i = 0; i < 1000; ++i)
    if (malloc(100) == nullptr) return 1;
  if (write(STDOUT_FILENO, "ready\n", 6) != 6) return 1;
  for (char request; read(STDIN_FILENO, &request, 1) == 1;)
    if (write(STDOUT_FILENO, "alive\n", 6) != 6) break;
  return 0;
}
