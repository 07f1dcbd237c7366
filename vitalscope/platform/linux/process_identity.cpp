#include "vitalscope/platform/linux/process_identity.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <new>

namespace qbv::linux_backend {

namespace {

using Word = std::atomic<std::int32_t>;
std::atomic<Word*> idWord{nullptr};

struct Identity {
  std::int32_t process;
  std::uint32_t thread;
};
[[gnu::tls_model("initial-exec")]] thread_local Identity identity{};

Word* makeIdWord() {
  void* const page = mapWipedOnFork(sizeof(Word));
  if (page == nullptr) return nullptr;
  Word* const made = new (page) Word(0);
  Word* expected = nullptr;
  if (idWord.compare_exchange_strong(expected, made)) return made;
  munmap(page, sizeof(Word));
  return expected;
}

}  // namespace

void* mapWipedOnFork(std::size_t bytes) {
  void* const pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) return nullptr;
  madvise(pages, bytes, MADV_WIPEONFORK);
  return pages;
}

std::int32_t processId() {
  Word* word = idWord.load(std::memory_order_acquire);
  if (word == nullptr) word = makeIdWord();
  if (word == nullptr) return getpid();
  std::int32_t id = word->load(std::memory_order_relaxed);
  if (id == 0) {
    id = getpid();
    word->store(id, std::memory_order_relaxed);
  }
  return id;
}

std::uint32_t threadId() {
  const std::int32_t process = processId();
  if (identity.process != process) {
    identity.thread = static_cast<std::uint32_t>(syscall(SYS_gettid));
    identity.process = process;
  }
  return identity.thread;
}

bool threadExists(std::uint32_t thread) {
  return thread != 0 && syscall(SYS_tgkill, processId(), thread, 0) == 0;
}

}  // namespace qbv::linux_backend
