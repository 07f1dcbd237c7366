#include "vitalscope/platform/linux/capture_round.h"

#include <sys/syscall.h>

#include <array>
#include <ctime>

#include "vitalscope/platform/linux/blocked_thread.h"
#include "vitalscope/platform/linux/call_restart.h"
#include "vitalscope/platform/linux/proc_text.h"
#include "vitalscope/platform/linux/process_identity.h"
#include "vitalscope/platform/linux/safe_read.h"
#include "vitalscope/platform/linux/snapshot_signal.h"
#include "vitalscope/platform/linux/stack_snapshot.h"

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kMillisecond = 1'000'000;
constexpr std::uint64_t kAnswerTime = 200 * kMillisecond;
constexpr std::uint64_t kAnswerTimeForEachOther = 20 * kMillisecond;
constexpr std::uint64_t kMaskedTime = 50 * kMillisecond;
constexpr int kLooks = 8;

using Scratch = std::span<std::byte, kFirstCopy>;

// outOfReach: some frames need registers that no signal can fetch.
enum class Look { taken, running, needsRegisters, outOfReach, unknown };

enum class Reach { bySignal, masked, ended };

Reach reachOf(std::uint32_t thread) {
  const int signal = snapshotSignal();
  char text[4096];
  const std::string_view status = readThreadFile(thread, "status", text);
  const char state = stateOfStatus(status);
  if (status.empty() || state == 'Z' || state == 'X') return Reach::ended;
  return signal == 0 || statusBlocksSignal(status, signal).value_or(false) ? Reach::masked : Reach::bySignal;
}

// Another capture's signal struck it first, and it waits for the kernel while it copies its stack.
bool inSnapshotHandler(std::uint32_t thread, const SystemCallLine& line) {
  return line.number == SYS_process_vm_readv && reachOf(thread) == Reach::masked;
}

// What a look at a blocked thread yields: everything, or everything but some frames when the rest is wanted
// no matter what.
Look takeBlocked(CapturedThread& item, Scratch scratch, bool whateverCanBeFound) {
  BlockedThread thread(item.thread);
  for (int look = 0; look < kLooks; ++look) {
    const SystemCallLine& line = thread.look();
    // It may be on its way into a wait that our signal would cut short: a few microseconds tell.
    if (line.state == SystemCallLine::State::running) continue;
    if (line.state == SystemCallLine::State::unknown) return Look::unknown;
    if (!whateverCanBeFound && inSnapshotHandler(item.thread, line)) return Look::running;
    Registers registers;
    registers.set(kProgramCounter, line.programCounter);
    registers.set(kStackPointer, line.stackPointer);
    const std::size_t size = safeRead(line.stackPointer, scratch.size(), scratch.data());
    const StackView stack{scratch.data(), line.stackPointer, size, readWord};
    const bool done =
        unwindInto(item.chain, registers, stack, whateverCanBeFound || !waitSurvivesSignal(line));
    if (!thread.unmoved()) continue;
    if (!done) {
      const Reach reach = reachOf(item.thread);
      if (!thread.unmoved()) continue;
      return reach == Reach::bySignal ? Look::needsRegisters : Look::outOfReach;
    }
    item.outcome = KERN_SUCCESS;
    return Look::taken;
  }
  return Look::running;
}

void napFor(std::uint64_t nanoseconds) {
  const timespec time{0, static_cast<long>(nanoseconds)};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
}

// As many threads as slots could be had for.
class Round {
 public:
  explicit Round(Scratch scratch) : scratch_(scratch) {}

  // Reads or signals threads from the front of the list; answers how many it dealt with, at least one.
  std::size_t start(std::span<CapturedThread> threads) {
    std::size_t dealtWith = 0;
    while (dealtWith < threads.size() && waitingCount_ < waiting_.size()) {
      if (!startOne(threads[dealtWith])) break;
      ++dealtWith;
    }
    return dealtWith;
  }

  void collect() {
    const std::uint64_t now = monotonicNow();
    const std::uint64_t deadline = now + kAnswerTime + waitingCount_ * kAnswerTimeForEachOther;
    for (std::size_t i = 0; i < waitingCount_; ++i) {
      if (!waiting_[i].masked) collectSignalled(waiting_[i], deadline);
    }
    for (std::size_t i = 0; i < waitingCount_; ++i) {
      if (waiting_[i].masked) collectMasked(waiting_[i], now + kMaskedTime);
    }
  }

 private:
  struct Waiting {
    CapturedThread* item = nullptr;
    bool masked = false;
    StackSnapshot snapshot;
  };

  // False when there is no slot for it before some are given back.
  bool startOne(CapturedThread& item) {
    const Look look = takeBlocked(item, scratch_, false);
    if (look == Look::taken) return true;
    const Reach reach = reachOf(item.thread);
    if (reach == Reach::ended) return true;
    if (look == Look::outOfReach) {
      takeBlocked(item, scratch_, true);
      return true;
    }
    Waiting& waiting = waiting_[waitingCount_];
    waiting.item = &item;
    waiting.masked = reach == Reach::masked;
    return waiting.masked ? ++waitingCount_ != 0 : signal(waiting);
  }

  bool signal(Waiting& waiting) {
    const std::uint64_t deadline = monotonicNow() + kAnswerTime;
    for (;;) {
      const StackSnapshot::Request request = waiting.snapshot.request(waiting.item->thread);
      if (request == StackSnapshot::Request::sent) ++waitingCount_;
      if (request != StackSnapshot::Request::noSlot) return true;
      if (waitingCount_ != 0) return false;
      // Others hold every slot; they give them back without waiting for anybody.
      if (monotonicNow() >= deadline) return true;
      napFor(kMillisecond);
    }
  }

  void collectSignalled(Waiting& waiting, std::uint64_t deadline) {
    CapturedThread& item = *waiting.item;
    if (waiting.snapshot.await(deadline)) {
      unwindInto(item.chain, waiting.snapshot.registers(), waiting.snapshot.stack(), true);
      item.outcome = KERN_SUCCESS;
      waiting.snapshot.release();
    } else {
      takeBlocked(item, scratch_, true);
    }
  }

  // It can be seen only when it waits, unless it was just coming out of the handler of another capture.
  void collectMasked(Waiting& waiting, std::uint64_t deadline) {
    CapturedThread& item = *waiting.item;
    for (;;) {
      const Look look = takeBlocked(item, scratch_, false);
      if (look == Look::taken) return;
      const Reach reach = reachOf(item.thread);
      if (reach == Reach::ended) return;
      if (look == Look::outOfReach || monotonicNow() >= deadline) break;
      if (reach == Reach::bySignal && waiting.snapshot.request(item.thread) == StackSnapshot::Request::sent) {
        return collectSignalled(waiting, monotonicNow() + kAnswerTime);
      }
      napFor(kMillisecond / 4);
    }
    takeBlocked(item, scratch_, true);
  }

  Scratch scratch_;
  std::array<Waiting, kSlotCount> waiting_;
  std::size_t waitingCount_ = 0;
};

}  // namespace

void captureThreads(std::span<CapturedThread> threads, Scratch scratch) {
  while (!threads.empty()) {
    Round round(scratch);
    const std::size_t dealtWith = round.start(threads);
    round.collect();
    threads = threads.subspan(dealtWith);
  }
}

}  // namespace qbv::linux_backend
