#include "vitalscope/platform/linux/capture_round.h"

#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>
#include <string_view>

#include "vitalscope/platform/linux/blocked_thread.h"
#include "vitalscope/platform/linux/call_restart.h"
#include "vitalscope/platform/linux/descriptor.h"
#include "vitalscope/platform/linux/proc_text.h"
#include "vitalscope/platform/linux/process_identity.h"
#include "vitalscope/platform/linux/safe_read.h"
#include "vitalscope/platform/linux/snapshot_signal.h"
#include "vitalscope/platform/linux/stack_snapshot.h"

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kMillisecond = 1'000'000;
constexpr std::uint64_t kAnswerTime = 1000 * kMillisecond;
constexpr std::uint64_t kAnswerTimeForEachOther = 20 * kMillisecond;
constexpr std::uint64_t kMaskedTime = 50 * kMillisecond;
// A thread that has worked this long without a pause is hardly about to begin one. Time that a virtual
// machine was not given counts as work too, which is why it is not shorter.
constexpr std::uint64_t kAtWork = 5 * kMillisecond;
constexpr std::uint64_t kWatched = 1000 * kMillisecond;
constexpr std::uint64_t kWatchedWithoutNap = kMillisecond / 5;
constexpr std::uint64_t kSlotTime = 200 * kMillisecond;
constexpr int kLooks = 8;

using Scratch = std::span<std::byte, kFirstCopy>;

// outOfReach: some frames need registers that no signal can fetch.
enum class Look { taken, running, needsRegisters, outOfReach, unknown };

enum class Reach { bySignal, masked, ended };

struct Status {
  Reach reach = Reach::ended;
  std::uint64_t pauses = 0;  // how often it has begun to wait
};

Status statusOf(std::uint32_t thread) {
  const int signal = snapshotSignal();
  char text[4096];
  const std::string_view status = readThreadFile(thread, "status", text);
  const char state = stateOfStatus(status);
  if (status.empty() || state == 'Z' || state == 'X') return {};
  const bool masked = signal == 0 || statusBlocksSignal(status, signal).value_or(false);
  return {masked ? Reach::masked : Reach::bySignal, pausesOfStatus(status).value_or(0)};
}

// Another capture's signal struck it first, and it waits for the kernel while it copies its stack.
bool inSnapshotHandler(std::uint32_t thread, const SystemCallLine& line) {
  return line.number == SYS_process_vm_readv && statusOf(thread).reach == Reach::masked;
}

// What a look at a blocked thread yields: everything, or everything but some frames when the rest is wanted
// no matter what, or when the signal that could fetch it would cut the wait short.
Look takeBlocked(BlockedThread& thread, CapturedThread& item, Scratch scratch, bool whateverCanBeFound) {
  for (int look = 0; look < kLooks; ++look) {
    const SystemCallLine& line = thread.look();
    if (line.state == SystemCallLine::State::running) return Look::running;
    if (line.state == SystemCallLine::State::unknown) return Look::unknown;
    if (!whateverCanBeFound && inSnapshotHandler(item.thread, line)) return Look::running;
    Registers registers;
    registers.set(kProgramCounter, line.programCounter);
    registers.set(kStackPointer, line.stackPointer);
    const std::size_t size = safeRead(line.stackPointer, scratch.size(), scratch.data());
    const StackView stack{scratch.data(), line.stackPointer, size, readWord, returnMarkOf(item.thread)};
    const bool done =
        unwindInto(item.chain, registers, stack, whateverCanBeFound || !waitSurvivesSignal(line));
    if (!thread.unmoved()) continue;
    if (!done) {
      const Reach reach = statusOf(item.thread).reach;
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

// A thread that cannot be read as it stands. When it runs it may be on its way into a wait that a signal
// would cut short, so it is watched until it waits or has proved to be at work; only then it is signalled.
class WatchedThread {
 public:
  bool isWatched() const { return stage_ == Stage::watched; }
  bool isSignalled() const { return stage_ == Stage::signalled; }
  bool isMasked() const { return stage_ == Stage::masked; }
  bool isFinished() const { return stage_ == Stage::finished; }

  // Looks at it for the first time, which is the only one for a thread that waits.
  void begin(CapturedThread& item, Scratch scratch, int folder) {
    item_ = &item;
    thread_.emplace(item.thread, folder);
    stage_ = Stage::watched;
    workedSince_.reset();
    watch(scratch);
  }

  // One more look.
  void watch(Scratch scratch) {
    switch (takeBlocked(*thread_, *item_, scratch, false)) {
      case Look::taken:
        return enter(Stage::finished);
      case Look::outOfReach:
        return takeWhatCanBeFound(scratch);
      case Look::running:
        return isAtWork() ? signal(Look::running) : void();
      case Look::needsRegisters:
        status_ = statusOf(item_->thread);
        return signal(Look::needsRegisters);
      default:
        status_ = statusOf(item_->thread);
        return signal(Look::unknown);
    }
  }

  void collect(Scratch scratch, std::uint64_t deadline) {
    if (!snapshot_.await(deadline)) return takeWhatCanBeFound(scratch);
    unwindInto(item_->chain, snapshot_.registers(), snapshot_.stack(), true);
    item_->outcome = KERN_SUCCESS;
    snapshot_.release();
    enter(Stage::finished);
  }

  // It can be seen only when it waits, unless it was just coming out of the handler of another capture.
  void collectMasked(Scratch scratch, std::uint64_t deadline) {
    for (; isMasked(); napFor(kMillisecond / 4)) {
      const bool late = monotonicNow() >= deadline;
      watch(scratch);
      if (isSignalled()) return collect(scratch, monotonicNow() + kAnswerTime);
      if (late) return takeWhatCanBeFound(scratch);
    }
  }

  void takeWhatCanBeFound(Scratch scratch) {
    for (int look = 0; look < kLooks; ++look) {
      if (takeBlocked(*thread_, *item_, scratch, true) != Look::running) break;
    }
    enter(Stage::finished);
  }

 private:
  enum class Stage { watched, signalled, masked, finished };

  void enter(Stage stage) {
    stage_ = stage;
    if (stage == Stage::finished) thread_.reset();
  }

  // Whether it has worked for a while without a pause, or is none to be signalled anyway. The file that
  // counts pauses is slow to read, so it is read only when the time has come.
  bool isAtWork() {
    const auto cpu = thread_->cpuAtLook();
    if (cpu && workedSince_ && *cpu < *workedSince_ + kAtWork) return false;
    const std::uint64_t pauses = status_.pauses;
    status_ = statusOf(item_->thread);
    if (status_.reach != Reach::bySignal) return true;
    const bool atWork = workedSince_ && pauses == status_.pauses;
    // Whatever it works from here on comes after the pauses that were counted.
    thread_->look();
    workedSince_ = thread_->cpuAtLook();
    return atWork;
  }

  // As its status says. Stays watched when every slot is in use, or when it is no longer as it was: nothing
  // else may come between that last look and the signal.
  void signal(Look seen) {
    if (status_.reach == Reach::ended) return enter(Stage::finished);
    if (status_.reach == Reach::masked) return enter(Stage::masked);
    const StackSnapshot::Request slot = snapshot_.prepare(item_->thread);
    if (slot == StackSnapshot::Request::noSlot) return;
    const bool asBefore = seen == Look::running ? thread_->look().state == SystemCallLine::State::running
                                                : seen == Look::unknown || thread_->unmoved();
    if (slot == StackSnapshot::Request::prepared && !asBefore) return snapshot_.release();
    const bool sent = slot == StackSnapshot::Request::prepared && snapshot_.send();
    enter(sent ? Stage::signalled : Stage::finished);
  }

  CapturedThread* item_ = nullptr;
  Stage stage_ = Stage::finished;
  std::optional<BlockedThread> thread_;
  Status status_;
  std::optional<std::uint64_t> workedSince_;  // CPU time
  StackSnapshot snapshot_;
};

// As many threads as there are places for those that do not wait.
class Round {
 public:
  Round(Scratch scratch, int folder) : scratch_(scratch), folder_(folder) {}

  // Reads threads from the front of the list, and keeps those that run; answers how many it has begun with.
  std::size_t start(std::span<CapturedThread> threads) {
    std::size_t begun = 0;
    while (begun < threads.size() && count_ < places_.size()) {
      places_[count_].begin(threads[begun++], scratch_, folder_);
      if (!places_[count_].isFinished()) ++count_;
    }
    return begun;
  }

  void collect() {
    watchAll();
    const std::uint64_t now = monotonicNow();
    const std::uint64_t deadline = now + kAnswerTime + count_ * kAnswerTimeForEachOther;
    for (WatchedThread& thread : places()) {
      if (thread.isSignalled()) thread.collect(scratch_, deadline);
    }
    for (WatchedThread& thread : places()) {
      if (thread.isMasked()) thread.collectMasked(scratch_, now + kMaskedTime);
    }
    for (WatchedThread& thread : places()) {
      if (thread.isWatched()) collectLate(thread, now + kSlotTime);
    }
  }

 private:
  std::span<WatchedThread> places() { return std::span(places_).first(count_); }

  bool lookAtAll() {
    bool someLeft = false;
    for (WatchedThread& thread : places()) {
      if (thread.isWatched()) thread.watch(scratch_);
      someLeft = someLeft || thread.isWatched();
    }
    return someLeft;
  }

  // One that gets no processor could not answer a signal either.
  void watchAll() {
    const std::uint64_t begin = monotonicNow();
    while (lookAtAll()) {
      const std::uint64_t watched = monotonicNow() - begin;
      if (watched >= kWatched) break;
      if (watched >= kWatchedWithoutNap) napFor(std::max(kMillisecond / 8, watched / 16));
    }
  }

  // Others held every slot; they give them back without waiting for anybody.
  void collectLate(WatchedThread& thread, std::uint64_t deadline) {
    for (; thread.isWatched() && monotonicNow() < deadline; napFor(kMillisecond)) {
      thread.watch(scratch_);
    }
    if (thread.isSignalled()) return thread.collect(scratch_, monotonicNow() + kAnswerTime);
    if (thread.isMasked()) return thread.collectMasked(scratch_, monotonicNow() + kMaskedTime);
    if (thread.isWatched()) thread.takeWhatCanBeFound(scratch_);
  }

  Scratch scratch_;
  int folder_;
  std::array<WatchedThread, kSlotCount> places_;
  std::size_t count_ = 0;
};

}  // namespace

void captureThreads(std::span<CapturedThread> threads, Scratch scratch) {
  const Descriptor folder(threads.size() > 1 ? openThreadFolder() : -1);
  while (!threads.empty()) {
    Round round(scratch, folder.get());
    const std::size_t dealtWith = round.start(threads);
    round.collect();
    threads = threads.subspan(dealtWith);
  }
}

}  // namespace qbv::linux_backend
