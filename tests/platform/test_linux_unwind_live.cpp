// Real code of this process: every single instruction of a call tree, code made at run time, libraries that
// come and go, smashed stacks.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "vitalscope/platform/linux/unwind.h"

namespace {

using namespace qbv::linux_backend;

// That sanitizer makes walks about a hundred times slower, and does not live on in a child that is stepped.
#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
constexpr int kSlowness = kThreadSanitizer ? 50 : 1;

struct Snapshot {
  Registers registers;
  std::uint64_t base = 0;
  std::vector<std::byte> stack;

  StackView view(bool (*elsewhere)(std::uint64_t, std::uint64_t&) = nullptr) const {
    return {stack.data(), base, stack.size(), elsewhere};
  }
  std::vector<std::uint64_t> walk(WalkEnd& end,
                                  bool (*elsewhere)(std::uint64_t, std::uint64_t&) = nullptr) const {
    std::vector<std::uint64_t> addresses(200);
    const Walk result = walkStack(registers, view(elsewhere), addresses.data(), addresses.size());
    addresses.resize(result.count);
    end = result.end;
    return addresses;
  }
};

bool readElsewhere(std::uint64_t address, std::uint64_t& word) {
  iovec local{&word, sizeof word}, remote{reinterpret_cast<void*>(address), sizeof word};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(sizeof word);
}

#if defined(__x86_64__)

// The calling thread's own stack, up to its thread pointer; not for the main thread.
__attribute__((noinline, no_sanitize("address"))) Snapshot ownSnapshot() {
  static constexpr int kOrder[] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                                   REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                   REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
  ucontext_t context;
  getcontext(&context);
  Snapshot snapshot;
  for (unsigned i = 0; i < kRegisterCount; ++i) {
    snapshot.registers.set(i, static_cast<std::uint64_t>(context.uc_mcontext.gregs[kOrder[i]]));
  }
  snapshot.base = snapshot.registers.sp();
  const auto top = reinterpret_cast<std::uint64_t>(__builtin_thread_pointer());
  snapshot.stack.resize(top - snapshot.base);
  iovec local{snapshot.stack.data(), snapshot.stack.size()};
  iovec remote{reinterpret_cast<void*>(snapshot.base), snapshot.stack.size()};
  process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
  return snapshot;
}

Snapshot steppedSnapshot(pid_t child, std::uint64_t top) {
  user_regs_struct user{};
  ptrace(PTRACE_GETREGS, child, nullptr, &user);
  const std::uint64_t values[] = {user.rax, user.rdx, user.rcx, user.rbx, user.rsi, user.rdi,
                                  user.rbp, user.rsp, user.r8,  user.r9,  user.r10, user.r11,
                                  user.r12, user.r13, user.r14, user.r15, user.rip};
  Snapshot snapshot;
  for (unsigned i = 0; i < kRegisterCount; ++i) snapshot.registers.set(i, values[i]);
  snapshot.base = user.rsp - 128;
  snapshot.stack.resize(top - snapshot.base);
  iovec local{snapshot.stack.data(), snapshot.stack.size()};
  iovec remote{reinterpret_cast<void*>(snapshot.base), snapshot.stack.size()};
  process_vm_readv(child, &local, 1, &remote, 1, 0);
  return snapshot;
}

using LazySort = int (*)(char*, unsigned long, void (*)());

// Through the library's stubs, the loader's resolver, the system's own clock code and deep into the C
// library.
__attribute__((noinline)) void steppedWork(LazySort sort) {
  char bytes[24] = "the quick brown fox";
  sort(bytes, 19, nullptr);
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::snprintf(bytes, sizeof bytes, "%ld %.3g", static_cast<long>(now.tv_nsec), 0.1);
  asm volatile("" ::"r"(bytes) : "memory");
}

// Runs in a forked child, whose images lie where the parent's do.
__attribute__((noinline)) void runStepped(LazySort sort) {
  raise(SIGSTOP);
  steppedWork(sort);
  asm volatile("" ::: "memory");
  raise(SIGSTOP);
}

bool endsWith(const std::vector<std::uint64_t>& all, const std::vector<std::uint64_t>& tail) {
  return all.size() >= tail.size() && std::equal(tail.rbegin(), tail.rend(), all.rbegin());
}

// One instruction further; false at the child's next stop of its own.
bool stepChild(pid_t child) {
  int status = 0;
  ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr);
  return waitpid(child, &status, 0) == child && WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP;
}

// A thread with a stack whose top is known, as the parent sees it.
void stepThroughEverything(LazySort sort) {
  const auto top = reinterpret_cast<std::uint64_t>(__builtin_thread_pointer());
  const pid_t child = fork();
  if (child == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(77);
    runStepped(sort);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status)) GTEST_SKIP() << "this system does not let a child be traced";
  WalkEnd end{};
  // What raise() was called from: runStepped and everything above it.
  std::vector<std::uint64_t> tail = steppedSnapshot(child, top).walk(end);
  ASSERT_EQ(end, WalkEnd::outermost);
  ASSERT_GE(tail.size(), 5U);
  tail.erase(tail.begin(), tail.end() - 3);
  int steps = 0, incomplete = 0, astray = 0;
  std::uint64_t firstWrong = 0;
  for (; steps < 60000 && stepChild(child); ++steps) {
    const Snapshot snapshot = steppedSnapshot(child, top);
    const std::vector<std::uint64_t> addresses = snapshot.walk(end);
    incomplete += end == WalkEnd::outermost ? 0 : 1;
    const bool right = endsWith(addresses, tail);
    if (!right && astray++ == 0) firstWrong = snapshot.registers.pc();
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  EXPECT_GT(steps, 3000);
  EXPECT_EQ(incomplete, 0);
  EXPECT_EQ(astray, 0) << "of " << steps << ", first at " << std::hex << firstWrong;
}

TEST(UnwindLive, everySingleInstructionLeadsBackToItsCaller) {
  if (kThreadSanitizer) GTEST_SKIP() << "not under the thread sanitizer";
  void* const library = dlopen(QBV_UNWIND_LAZY, RTLD_LAZY | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto sort = reinterpret_cast<LazySort>(dlsym(library, "unwind_lazy_sort"));
  ASSERT_NE(sort, nullptr);
  std::thread(stepThroughEverything, sort).join();
}

// What a compiler at run time makes: a function with a frame record and no tables. It calls its argument.
void* makeCode() {
  static constexpr unsigned char kCode[] = {
      0x55,                    // push rbp
      0x48, 0x89, 0xe5,        // mov rbp, rsp
      0x48, 0x83, 0xec, 0x20,  // sub rsp, 32
      0xff, 0xd7,              // call rdi
      0xc9,                    // leave
      0xc3,                    // ret
  };
  void* const page =
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  std::memcpy(page, kCode, sizeof kCode);
  return page;
}

Snapshot gInside;

TEST(UnwindLive, codeMadeAtRunTimeIsCrossedByItsFrameRecord) {
  void* const code = makeCode();
  std::thread([code] {
    reinterpret_cast<void (*)(void (*)())>(code)([] { gInside = ownSnapshot(); });
    asm volatile("" ::: "memory");
  }).join();
  const std::uint64_t afterCall = reinterpret_cast<std::uint64_t>(code) + 10;
  for (const auto elsewhere : {readElsewhere, static_cast<decltype(&readElsewhere)>(nullptr)}) {
    WalkEnd end{};
    const std::vector<std::uint64_t> addresses = gInside.walk(end, elsewhere);
    const auto made = std::find(addresses.begin(), addresses.end(), afterCall);
    ASSERT_NE(made, addresses.end());
    EXPECT_EQ(end, WalkEnd::outermost);
    EXPECT_GE(addresses.end() - made, 4);
  }
  // Standing in the made code itself: before its record is there, in its body, at its return.
  const std::vector<std::uint64_t> expected = [&] {
    WalkEnd end{};
    const std::vector<std::uint64_t> all = gInside.walk(end);
    return std::vector<std::uint64_t>(std::find(all.begin(), all.end(), afterCall) + 1, all.end());
  }();
  const std::uint64_t record = [&] {
    for (std::size_t at = 0; at + 24 <= gInside.stack.size(); at += 8) {
      std::uint64_t word = 0;
      std::memcpy(&word, gInside.stack.data() + at, 8);
      if (word == afterCall) return gInside.base + at + 8 + 32;
    }
    return std::uint64_t{0};
  }();
  const struct {
    std::uint64_t offset, sp;
  } places[] = {{0, record + 8}, {1, record}, {8, record - 32}, {11, record + 8}};
  for (const auto& place : places) {
    Snapshot standing = gInside;
    standing.registers.set(kProgramCounter, reinterpret_cast<std::uint64_t>(code) + place.offset);
    standing.registers.set(kStackPointer, place.sp);
    std::uint64_t outer = 0;
    gInside.view().read(record, outer);
    standing.registers.set(kFramePointer, place.offset == 8 ? record : outer);
    WalkEnd end{};
    EXPECT_EQ(standing.walk(end, readElsewhere), expected) << "at byte " << place.offset;
  }
}

// A library is closed while snapshots taken inside it are walked.
TEST(UnwindLive, librariesMayComeAndGoUnderTheWalk) {
  static std::mutex mutex;
  static Snapshot latest;
  static std::atomic<bool> stop{false};
  static std::atomic<int> loads{0};
  std::thread loader([] {
    for (; !stop; ++loads) {
      void* const library = dlopen(QBV_UNWIND_LAZY, RTLD_LAZY | RTLD_LOCAL);
      const auto sort = reinterpret_cast<LazySort>(dlsym(library, "unwind_lazy_sort"));
      char bytes[4] = "cba";
      sort(bytes, 3, [] {
        Snapshot snapshot = ownSnapshot();
        const std::lock_guard lock(mutex);
        latest = std::move(snapshot);
      });
      dlclose(library);
    }
  });
  while (loads < 3) std::this_thread::yield();
  int complete = 0, walks = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while ((complete < 300 / kSlowness || walks < 3000 / kSlowness) &&
         std::chrono::steady_clock::now() < deadline) {
    Snapshot snapshot;
    {
      const std::lock_guard lock(mutex);
      snapshot = latest;
    }
    WalkEnd end{};
    complete += snapshot.walk(end).size() >= 4 && end == WalkEnd::outermost ? 1 : 0;
    ++walks;
  }
  stop = true;
  loader.join();
  EXPECT_GE(complete, 300 / kSlowness) << "of " << walks;
}

// The list of images is held during a walk; a child made at that moment would find it held for ever.
TEST(UnwindLive, forkedChildrenMayLoadLibraries) {
  static std::atomic<bool> stop{false};
  static std::atomic<int> walks{0};
  std::vector<std::thread> walkers;
  for (int i = 0; i < 2; ++i) {
    walkers.emplace_back([] {
      const Snapshot snapshot = ownSnapshot();
      for (WalkEnd end{}; !stop; ++walks) snapshot.walk(end);
    });
  }
  while (walks < 100 / kSlowness) std::this_thread::yield();
  int stuck = 0;
  for (int i = 0; i < 200 / kSlowness; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      _exit(dlopen(QBV_UNWIND_LAZY, RTLD_LAZY) == nullptr ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    stuck += status == 0 ? 0 : 1;
    if (stuck != 0) break;
  }
  stop = true;
  for (std::thread& walker : walkers) walker.join();
  EXPECT_EQ(stuck, 0);
}

Snapshot gWhole;

TEST(UnwindLive, smashedStacksAndRegistersEndTheWalk) {
  std::thread([] {
    char bytes[8] = "sorted";
    qsort(bytes, 6, 1, [](const void*, const void*) {
      if (gWhole.stack.empty()) gWhole = ownSnapshot();
      return 1;
    });
  }).join();
  WalkEnd end{};
  const std::vector<std::uint64_t> right = gWhole.walk(end);
  ASSERT_EQ(end, WalkEnd::outermost);
  ASSERT_GE(right.size(), 4U);
  std::minstd_rand random(7);
  const auto garbage = [&]() -> std::uint64_t {
    const std::uint64_t wide = std::uint64_t{random()} << 33 ^ random();
    switch (random() % 5) {
      case 0:
        return wide;
      case 1:
        return gWhole.base + wide % gWhole.stack.size();
      case 2:
        return right[wide % right.size()];
      case 3:
        return 0x4141414141414141;
      default:
        return reinterpret_cast<std::uint64_t>(&qsort) + wide % 100000;
    }
  };
  for (int i = 0; i < 20000 / kSlowness; ++i) {
    Snapshot smashed = gWhole;
    for (int hit = static_cast<int>(random() % 6); hit >= 0; --hit) {
      const std::uint64_t word = garbage();
      std::memcpy(smashed.stack.data() + random() % (smashed.stack.size() / 8) * 8, &word, 8);
      if (random() % 4 == 0)
        smashed.registers.set(static_cast<unsigned>(random() % kRegisterCount), garbage());
    }
    EXPECT_LE(smashed.walk(end, i % 2 == 0 ? readElsewhere : nullptr).size(), 200U);
  }
}

#endif

}  // namespace
