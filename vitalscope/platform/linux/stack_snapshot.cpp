#include "vitalscope/platform/linux/stack_snapshot.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <new>

#include "vitalscope/platform/linux/own_region.h"
#include "vitalscope/platform/linux/process_identity.h"
#include "vitalscope/platform/linux/safe_read.h"
#include "vitalscope/platform/linux/snapshot_signal.h"

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kLook = 5'000'000;          // ns between looks whether the thread still lives
constexpr std::uint64_t kCopyTime = 1'000'000'000;  // ns
constexpr std::size_t kKeptBytes = 16 * 1024;       // of the buffers of the first slots, which serve mostly
constexpr std::ptrdiff_t kKeptSlots = 8;
constexpr std::size_t kLead = 4096;  // a page before a buffer, which says what it is

bool mapBuffer(SnapshotSlot& slot) {
  if (slot.buffer != nullptr) return true;
  constexpr std::size_t kSize = kLead + kMaximumStack;
  void* const pages =
      mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (pages == MAP_FAILED) return false;
  madvise(pages, kSize, MADV_DONTFORK);
  new (pages) OwnRegion{ownRegionAt(pages, kSize)};
  slot.buffer = static_cast<std::byte*>(pages) + kLead;
  return true;
}

void trimBuffer(SnapshotSlot& slot) {
  const std::size_t kept = &slot - presentSlots() < kKeptSlots ? kKeptBytes : 0;
  if (slot.stackSize > kept) madvise(slot.buffer + kept, kMaximumStack - kept, MADV_DONTNEED);
}

SnapshotSlot* claimSlot() {
  SnapshotSlot* const slots = snapshotSlots();
  if (slots == nullptr) return nullptr;
  for (std::size_t i = 0; i < kSlotCount; ++i) {
    std::uint32_t word = 0;
    const std::uint32_t claimed = slotWord(threadId(), SlotPhase::claimed);
    if (slots[i].word.compare_exchange_strong(word, claimed, std::memory_order_acq_rel)) return slots + i;
  }
  return nullptr;
}

void waitForChange(SnapshotSlot& slot, std::uint32_t word, std::uint64_t nanoseconds) {
  const timespec time{static_cast<time_t>(nanoseconds / 1'000'000'000),
                      static_cast<long>(nanoseconds % 1'000'000'000)};
  syscall(SYS_futex, &slot.word, FUTEX_WAIT_PRIVATE, word, &time, nullptr, 0);
}

}  // namespace

std::uint64_t monotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

StackSnapshot::Request StackSnapshot::prepare(std::uint32_t thread) {
  release();
  signal_ = snapshotSignal();
  if (signal_ == 0) return Request::failed;
  slot_ = claimSlot();
  if (slot_ == nullptr) return Request::noSlot;
  thread_ = thread;
  slot_->stackSize = 0;
  if (!mapBuffer(*slot_)) {
    giveUp();
    return Request::failed;
  }
  slot_->word.store(slotWord(thread, SlotPhase::pending), std::memory_order_release);
  return Request::prepared;
}

bool StackSnapshot::send() {
  if (sendSnapshotSignal(signal_, thread_, slot_)) return true;
  // A late signal for an earlier request of this slot and thread may be serving it all the same.
  giveUp();
  return false;
}

StackSnapshot::Request StackSnapshot::request(std::uint32_t thread) {
  const Request prepared = prepare(thread);
  if (prepared != Request::prepared) return prepared;
  return send() ? Request::sent : Request::failed;
}

bool StackSnapshot::await(std::uint64_t deadline) {
  std::uint64_t copyDeadline = 0;
  for (;;) {
    const std::uint32_t word = slot_->word.load(std::memory_order_acquire);
    const SlotPhase phase = slotPhase(word);
    if (phase == SlotPhase::done) return true;
    const std::uint64_t now = monotonicNow();
    if (phase == SlotPhase::busy && copyDeadline == 0) copyDeadline = now + kCopyTime;
    const std::uint64_t end = phase == SlotPhase::busy ? copyDeadline : deadline;
    if (now >= end || (phase == SlotPhase::pending && !threadExists(thread_))) {
      if (giveUp()) return false;
      continue;
    }
    waitForChange(*slot_, word, std::min(end - now, kLook));
  }
}

// Takes the request back. False when the thread has just moved it on: look again.
bool StackSnapshot::giveUp() {
  std::uint32_t word = slot_->word.load(std::memory_order_acquire);
  switch (slotPhase(word)) {
    case SlotPhase::busy:
      if (!slot_->word.compare_exchange_strong(word, slotWord(thread_, SlotPhase::abandoned))) return false;
      break;
    case SlotPhase::done:
      return false;
    default:
      if (!slot_->word.compare_exchange_strong(word, 0)) return false;
  }
  slot_ = nullptr;
  return true;
}

StackView StackSnapshot::stack() const {
  return {slot_->buffer, slot_->stackBase, slot_->stackSize, slot_->alternateStack ? readWord : nullptr,
          slot_->returns};
}

void StackSnapshot::release() {
  while (slot_ != nullptr && slotPhase(slot_->word.load(std::memory_order_acquire)) != SlotPhase::done)
    giveUp();
  if (slot_ == nullptr) return;
  trimBuffer(*slot_);
  slot_->word.store(0, std::memory_order_release);
  slot_ = nullptr;
}

}  // namespace qbv::linux_backend
