// Starts every scene on a thread of its own, walks each thread's stack, prints one line per scene
//   NAME;THREAD;END;pc return-address return-address ...
// and "ready", then waits until its input is closed.
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "unwind_scenes.h"
#include "vitalscope/platform/linux/unwind.h"

namespace {

using namespace qbv::linux_backend;

constexpr std::size_t kMost = 400;

struct Actor {
  const victims::Scene* scene = nullptr;
  pthread_t handle{};
  std::atomic<pid_t> thread{0};
  std::atomic<bool> ready{false};
  std::uint64_t stackTop = 0;
};

thread_local Actor* tActor;
std::atomic<bool> gSnapshotTaken{false};
Registers gRegisters;

void ready() {
  tActor->ready.store(true);
}

void* act(void* argument) {
  tActor = static_cast<Actor*>(argument);
  tActor->stackTop = reinterpret_cast<std::uint64_t>(__builtin_thread_pointer());
  tActor->thread.store(static_cast<pid_t>(syscall(SYS_gettid)));
  tActor->scene->run(ready);
  return nullptr;
}

void takeRegisters(int, siginfo_t*, void* context) {
  static constexpr int kOrder[] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                                   REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                   REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
  const auto* user = static_cast<const ucontext_t*>(context);
  for (unsigned i = 0; i < kRegisterCount; ++i) {
    gRegisters.set(i, static_cast<std::uint64_t>(user->uc_mcontext.gregs[kOrder[i]]));
  }
  gSnapshotTaken.store(true);
}

bool readElsewhere(std::uint64_t address, std::uint64_t& word) {
  iovec local{&word, sizeof word}, remote{reinterpret_cast<void*>(address), sizeof word};
  return process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == static_cast<ssize_t>(sizeof word);
}

// Waits until the thread stands in a system call and answers its stack pointer and program counter.
Registers blockedRegisters(pid_t thread) {
  char name[64], text[256];
  std::snprintf(name, sizeof name, "/proc/self/task/%d/syscall", thread);
  for (;;) {
    FILE* file = std::fopen(name, "r");
    const bool got = file != nullptr && std::fgets(text, sizeof text, file) != nullptr;
    if (file != nullptr) std::fclose(file);
    if (!got) std::exit(3);
    if (std::strncmp(text, "running", 7) != 0) break;
    usleep(1000);
  }
  char* pc = std::strrchr(text, ' ');
  *pc = 0;
  char* sp = std::strrchr(text, ' ');
  Registers registers;
  registers.set(kProgramCounter, std::strtoull(pc + 1, nullptr, 16));
  registers.set(kStackPointer, std::strtoull(sp + 1, nullptr, 16));
  return registers;
}

Registers signalledRegisters(const Actor& actor) {
  gSnapshotTaken.store(false);
  pthread_kill(actor.handle, SIGRTMIN + 5);
  while (!gSnapshotTaken.load()) usleep(100);
  return gRegisters;
}

std::vector<std::byte> copyStack(std::uint64_t from, std::uint64_t top) {
  std::vector<std::byte> bytes(top > from && top - from < (8U << 20) ? top - from : 0);
  std::memcpy(bytes.data(), reinterpret_cast<const void*>(from), bytes.size());
  return bytes;
}

Walk walk(const Actor& actor, bool allRegisters, std::uint64_t* addresses) {
  const Registers registers = allRegisters ? signalledRegisters(actor) : blockedRegisters(actor.thread);
  const std::uint64_t base = registers.sp() - 128;
  const std::vector<std::byte> copy = copyStack(base, actor.stackTop);
  const StackView stack{copy.data(), base, copy.size(), actor.scene->otherStack ? readElsewhere : nullptr};
  addresses[0] = registers.pc();
  return walkStack(registers, stack, addresses + 1, kMost - 1);
}

const char* endName(WalkEnd end) {
  static constexpr const char* kNames[] = {"outermost", "full", "needs registers", "left copy", "broken"};
  return kNames[static_cast<unsigned>(end)];
}

void report(const Actor& actor) {
  std::uint64_t addresses[kMost];
  Walk result = walk(actor, actor.scene->running, addresses);
  const bool asked = result.end == WalkEnd::needsRegisters;
  if (asked) result = walk(actor, true, addresses);
  std::printf("%s;%d;%s%s;", actor.scene->name, static_cast<int>(actor.thread), endName(result.end),
              asked ? " after needing registers" : "");
  for (std::size_t i = 0; i <= result.count; ++i) std::printf("%lx ", addresses[i]);
  std::printf("\n");
}

}  // namespace

int main() {
  struct sigaction action {};
  action.sa_sigaction = takeRegisters;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigaction(SIGRTMIN + 5, &action, nullptr);
  std::vector<Actor> actors(victims::kSceneCount);
  for (unsigned i = 0; i < victims::kSceneCount; ++i) {
    actors[i].scene = &victims::kScenes[i];
    pthread_create(&actors[i].handle, nullptr, act, &actors[i]);
  }
  for (const Actor& actor : actors) {
    while (!actor.ready.load()) usleep(1000);
    report(actor);
  }
  std::printf("ready\n");
  std::fflush(stdout);
  char byte;
  while (read(0, &byte, 1) > 0) {
  }
  std::_Exit(0);
}
