#include "tools/leaks/heap_check.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <optional>

#include "tools/leaks/known_library.h"
#include "tools/leaks/leak_report.h"
#include "tools/leaks/process_reader.h"
#include "tools/leaks/symbols.h"
#include "tools/tracer/process_facts.h"
#include "tools/tracer/tracer.h"

namespace leaks {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMostStops = 200;     // until one finds no thread inside the allocator
constexpr int kMostSnapshots = 10;  // until one is consistent
constexpr int kMostWithoutHeap = 3;
constexpr int kMostThreads = 5;                // to read through, as one after the other ends
constexpr std::chrono::seconds kPatience{15};  // with threads that cannot be stopped
constexpr std::chrono::milliseconds kBetweenStops{3};
constexpr std::chrono::milliseconds kBetweenPasses{10};

// The tracer takes these itself, so that the target is never left stopped by our end.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) sigaddset(&blocked, signal);
    sigprocmask(SIG_BLOCK, &blocked, &before_);
  }
  ~SignalsBlocked() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

class Check {
 public:
  Check(pid_t process, bool isWhole)
      : process_(process), memoryOf_(tracer::livingThread(process)), reader_(memoryOf_), symbols_(memoryOf_) {
    report_.isWhole = isWhole;
    report_.nameOf = [this](Address address) { return symbols_.nameOf(address); };
  }

  std::string run(std::string& text) {
    std::string failure = examine(text);
    const bool isGone = memoryOf_ != 0 && tracer::livingThread(process_) == 0;
    return failure.empty() || !isGone ? failure : "process " + std::to_string(process_) + " has ended";
  }

  // Whether the thread through which the memory was read has ended, but not the process.
  bool hasLostItsThread() const {
    const pid_t living = tracer::livingThread(process_);
    return living != 0 && living != memoryOf_;
  }

 private:
  std::string examine(std::string& text) {
    if (std::string failure = recognise(); !failure.empty()) return failure;
    if (std::string failure = pass(); !failure.empty()) return failure;
    if (!report_.analysis.leaked.empty()) {
      const Analysis first = report_.analysis;
      usleep(std::chrono::microseconds(kBetweenPasses).count());
      if (std::string failure = pass(); !failure.empty()) return failure;
      report_.analysis = agreed(first, std::move(report_.analysis));
    }
    text = renderLeaks(report_, snapshot_);
    return "";
  }

  // While the process runs: who it is, and whether its heap can be read at all.
  std::string recognise() {
    const std::string folder = "/proc/" + std::to_string(process_);
    report_.processId = static_cast<std::uint32_t>(process_);
    report_.process = tracer::firstLine(folder + "/comm");
    report_.executable = tracer::linkTarget("/proc/" + std::to_string(memoryOf_) + "/exe");
    report_.date = tracer::localDate();
    {
      const SignalsBlocked blocked;
      tracer::Tracer tracer(process_);
      if (std::string failure = tracer.attach(); !failure.empty()) return failure;
    }
    const std::vector<Mapping> mappings = mappingsOf(memoryOf_);
    if (const std::string other = foreignAllocator(mappings); !other.empty())
      return "the program's blocks come from " + other + ", whose heap is not recognised";
    const std::string library = libraryPath(mappings);
    if (library.empty()) return "the program uses no C library whose heap is recognised";
    const std::string version = libraryVersion(memoryOf_, mappings, library);
    if (!isKnownLibrary(version))
      return "the heap's layout of C library version " + (version.empty() ? "?" : version) +
             " is not recognised";
    report_.library = "glibc " + version;
    return "";
  }

  std::string pass() {
    for (int attempt = 1;; ++attempt) {
      if (std::string failure = takeSnapshot(); !failure.empty()) return failure;
      report_.analysis = analyse(snapshot_);
      const HeapFailure& failure = report_.analysis.failure;
      if (!failure) return "";
      // A thread caught inside the allocator leaves the heap half changed for a moment.
      const int most = failure.kind == HeapFailure::Kind::noHeap ? kMostWithoutHeap : kMostSnapshots;
      if (attempt == most) return failure.reason;
      report_.stoppedMilliseconds.pop_back();
      usleep(std::chrono::microseconds(kBetweenStops).count());
    }
  }

  std::string takeSnapshot() {
    const auto start = Clock::now();
    for (int stop = 0; stop < kMostStops; ++stop) {
      if (std::string failure = reader_.prepare(); !failure.empty()) return failure;
      const std::vector<Address> locks = arenaLocks();
      const SignalsBlocked blocked;
      tracer::Tracer tracer(process_);
      if (std::string failure = tracer.attach(); !failure.empty()) return failure;
      const auto begin = Clock::now();
      std::vector<Thread> threads;
      for (const pid_t thread : tracer.stopAll()) threads.push_back(readThread(thread));
      const std::size_t running = tracer.running();
      if (threads.empty() && running == 0) return "the process has ended";
      // A thread deep in the kernel cannot be stopped, and changes nothing; any other is waited for.
      const bool isStill = running == 0 || (begin - start > kPatience && !threads.empty());
      const bool isCopied = isStill && !isAnyHeld(locks) && reader_.copy(std::move(threads), snapshot_);
      const std::chrono::duration<double, std::milli> length = Clock::now() - begin;
      tracer.detach();
      if (isCopied) {
        report_.note = noteOn(running);
        report_.stoppedMilliseconds.push_back(length.count());
        return "";
      }
      usleep(std::chrono::microseconds(kBetweenStops).count());
    }
    return "the heap cannot be read: a thread was inside the allocator at every attempt";
  }

  // What makes the result less sure.
  std::string noteOn(std::size_t running) const {
    const auto tooLarge = std::count_if(snapshot_.mappings.begin(), snapshot_.mappings.end(), isTooLarge);
    std::string note = running == 0 ? "" : "threads that could not be stopped: " + std::to_string(running);
    if (tooLarge > 0)
      note += (note.empty() ? "" : "; ") +
              ("what only mappings of more than 16 GB point to is listed as lost: there are " +
               std::to_string(tooLarge));
    return note;
  }

  // Where the arenas' locks are, as far as can be told while the process runs.
  std::vector<Address> arenaLocks() const {
    constexpr std::size_t kMostArenas = 4096;
    std::vector<Address> locks;
    const std::vector<Mapping> mappings = mappingsOf(memoryOf_);
    for (const Range& range : libraryData(mappings, libraryPath(mappings))) {
      std::vector<std::byte> bytes(static_cast<std::size_t>(range.size()));
      if (!readMemory(memoryOf_, range.begin, bytes.data(), bytes.size())) continue;
      const Address main = likelyMainArena({range.begin, bytes.data(), bytes.size()});
      for (Address at = main; at != 0 && locks.size() < kMostArenas;) {
        locks.push_back(at + layout::kArenaLock);
        Address next = 0;
        if (!readMemory(memoryOf_, at + layout::kArenaNext, &next, sizeof next) || next == main) break;
        at = next;
      }
    }
    return locks;
  }

  bool isAnyHeld(const std::vector<Address>& locks) const {
    for (const Address lock : locks) {
      std::uint32_t value = 0;
      if (readMemory(memoryOf_, lock, &value, sizeof value) && value != 0) return true;
    }
    return false;
  }

  pid_t process_;
  pid_t memoryOf_;  // a thread of it
  ProcessReader reader_;
  Symbols symbols_;
  Snapshot snapshot_;
  LeakReport report_;
};

}  // namespace

CheckResult checkProcess(pid_t process, bool isWhole) {
  CheckResult result;
  for (int attempt = 0; attempt < kMostThreads; ++attempt) {
    Check check(process, isWhole);
    result.failure = check.run(result.text);
    if (result.failure.empty() || !check.hasLostItsThread()) break;
  }
  return result;
}

}  // namespace leaks
