#include "vitalscope/platform/linux/requester.h"

#include <pthread.h>
#include <sys/mman.h>

#include <cstring>
#include <new>

#include "vitalscope/platform/linux/process_identity.h"

namespace qbv::linux_backend {

namespace {

// For reading the records wherever a signal may have struck, where pthread_getspecific will not do.
constinit thread_local FrameRecords* ownRecords __attribute__((tls_model("initial-exec"))) = nullptr;

void* mapPages(std::size_t bytes) {
  void* const pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

void discard(void* requester) {
  ownRecords = nullptr;
  static_cast<Requester*>(requester)->endBatch();
  munmap(requester, sizeof(Requester));
}

struct Key {
  pthread_key_t key = 0;
  bool made = pthread_key_create(&key, discard) == 0;
};

const Key& requesterKey() {
  static const Key key;
  return key;
}

}  // namespace

Requester* Requester::present() {
  const Key& key = requesterKey();
  return key.made ? static_cast<Requester*>(pthread_getspecific(key.key)) : nullptr;
}

Requester* Requester::current() {
  if (Requester* const known = present()) return known;
  void* const pages = requesterKey().made ? mapPages(sizeof(Requester)) : nullptr;
  if (pages == nullptr) return nullptr;
  auto* const made = new (pages) Requester;
  if (pthread_setspecific(requesterKey().key, made) == 0) {
    ownRecords = &made->records_;
    return made;
  }
  munmap(pages, sizeof(Requester));
  return nullptr;
}

void Requester::beginBatch(std::span<const ThreadPort> threads) {
  endBatch();
  void* const pages = threads.empty() ? nullptr : mapPages(threads.size() * sizeof(CapturedThread));
  if (pages == nullptr) return;
  auto* const items = static_cast<CapturedThread*>(pages);
  std::size_t count = 0;
  for (const ThreadPort thread : threads) {
    if (thread != 0 && thread != threadId()) (new (items + count++) CapturedThread)->thread = thread;
  }
  // The pages are unmapped by the size of the whole list.
  batch_ = {items, threads.size()};
  captureThreads(batch_.first(count), scratch_);
}

void Requester::endBatch() {
  if (!batch_.empty()) munmap(batch_.data(), batch_.size_bytes());
  batch_ = {};
  batchNext_ = 0;
}

// Callers go through the list in order, so the one after the last answer is mostly the one.
const CapturedThread* Requester::fromBatch(ThreadPort thread) {
  for (std::size_t step = 0; step < batch_.size(); ++step) {
    const std::size_t at = (batchNext_ + step) % batch_.size();
    if (batch_[at].thread != thread) continue;
    batchNext_ = at + 1;
    return &batch_[at];
  }
  return nullptr;
}

KernReturn Requester::state(ThreadPort thread, ThreadState& state) {
  shown_ = 0;
  pinned_ = false;
  if (thread == 0 || thread == threadId()) return KERN_INVALID_ARGUMENT;
  const CapturedThread* captured = fromBatch(thread);
  if (captured == nullptr) {
    single_ = CapturedThread{};
    single_.thread = thread;
    captureThreads({&single_, 1}, scratch_);
    captured = &single_;
  }
  if (captured->outcome != KERN_SUCCESS) return captured->outcome;
  state = ThreadState{};
  state.pc = captured->chain.programCounter;
  state.sp = captured->chain.stackPointer;
  state.fp = layOut(captured->chain, records_);
  shown_ = thread;
  return KERN_SUCCESS;
}

bool Requester::copyFromRecords(std::uint64_t address, std::size_t size, void* buffer) {
  const std::uint64_t offset = address - reinterpret_cast<std::uint64_t>(ownRecords);
  if (ownRecords == nullptr || offset > sizeof *ownRecords || size > sizeof *ownRecords - offset)
    return false;
  std::memcpy(buffer, reinterpret_cast<const std::byte*>(ownRecords) + offset, size);
  return true;
}

KernReturn Requester::pin(ThreadPort thread) {
  if (thread == 0 || shown_ != thread) return KERN_INVALID_ARGUMENT;
  pinned_ = true;
  return KERN_SUCCESS;
}

KernReturn Requester::unpin(ThreadPort thread) {
  if (!pinned_ || shown_ != thread) return KERN_INVALID_ARGUMENT;
  pinned_ = false;
  return KERN_SUCCESS;
}

}  // namespace qbv::linux_backend
