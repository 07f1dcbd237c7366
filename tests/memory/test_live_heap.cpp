// The allocation monitor on this process's own heap, and programs that know nothing of it under the library.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/commands.h"
#include "vitalscope/memory/QBAllocateMemoryMonitor.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace {

void* (*volatile allocate)(std::size_t) = std::malloc;
void* (*volatile reallocate)(void*, std::size_t) = std::realloc;
void (*volatile release)(void*) = std::free;

std::string outputOf(const std::string& command) {
  const qbv::test::Outcome outcome = qbv::test::shell(command + " 2>&1");
  return outcome.output + "status " + std::to_string(outcome.code);
}

class LiveHeapTest : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(QBV_SANITIZED)
    GTEST_SKIP() << "the sanitizer brings its own allocator: nothing is interposed";
#endif
  }
  static std::int64_t count() {
    return QBAllocateMemoryMonitor::currentAllocMemoryLiveCount();
  }
  // No timer fires from now on, so that nobody but the test allocates.
  static void holdTimers() {
    auto& held = *new qbv::ScriptedPlatform;
    new qbv::ScopedPlatform(*new qbv::Platform(qbv::linux_backend::platform().with(held.dispatch)));
  }
};

TEST_F(LiveHeapTest, CountsWhatThisProcessAllocates) {
  holdTimers();
  std::vector<void*> blocks;
  blocks.reserve(1000);
  void* const fromBefore = allocate(10);
  QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  const std::int64_t before = count();
  for (std::size_t i = 0; i < 1000; ++i) blocks.push_back(allocate(i));
  EXPECT_EQ(count(), before + 1000);
  release(fromBefore);
  EXPECT_EQ(count(), before + 999);
  for (void* const block : blocks) release(block);
  EXPECT_EQ(count(), before - 1);
  QBAllocateMemoryMonitor::sharedInstance()->stop();
  void* const unseen = allocate(10);
  EXPECT_EQ(count(), before - 1);
  QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  release(unseen);
  EXPECT_EQ(count(), before - 2);
}

TEST_F(LiveHeapTest, ManyThreadsReportOverSizeBlocksAtOnceWhileOthersAllocate) {
  constexpr int kReporters = 6;
  QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  std::atomic<bool> stop{false};
  std::vector<std::thread> busy;
  for (int number = 0; number < 2; ++number)
    busy.emplace_back([&] {
      while (!stop) release(reallocate(allocate(100), 5000));
    });
  std::latch together(kReporters);
  std::vector<std::thread> reporters;
  for (int number = 0; number < kReporters; ++number)
    reporters.emplace_back([&] {
      together.arrive_and_wait();
      for (int round = 0; round < 3; ++round) {
        void* const block = allocate(60 << 20);
        ASSERT_NE(block, nullptr);
        static_cast<char*>(block)[0] = 1;
        release(reallocate(block, 70 << 20));
      }
    });
  for (std::thread& reporter : reporters) reporter.join();
  stop = true;
  for (std::thread& thread : busy) thread.join();
}

TEST_F(LiveHeapTest, AnOverSizeBlockMayBeAskedForUnderTheHostsOwnLocks) {
  QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  std::mutex hosts;
  std::unique_lock lock(hosts);
  // Another thread waits for that lock meanwhile; its stack is among those that are taken.
  std::thread waiting([&] { const std::lock_guard second(hosts); });
  void* const block = allocate(60 << 20);
  EXPECT_NE(block, nullptr);
  release(block);
  lock.unlock();
  waiting.join();
}

// NOLINTNEXTLINE(misc-no-recursion)
[[gnu::noinline]] int record(int depth, std::uint64_t address) {
  volatile int result = depth;
  if (depth == 0)
    recordMallocStack(address, 1 << 21, 0);
  else
    record(depth - 1, address);
  return result;
}

TEST_F(LiveHeapTest, RecordsRealStacks) {
  QBAllocateMemoryMonitor::sharedInstance();
  for (std::uint64_t i = 0; i < 10; ++i) record(10, 0x1000 + i * 16);
  record(11, 0x9000);
  const auto* const first = QBAllocateMemoryMonitor::oom_ptrs_hashmap()->lookupPtr(0x1000);
  const auto* const other = QBAllocateMemoryMonitor::oom_ptrs_hashmap()->lookupPtr(0x9000);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(other, nullptr);
  EXPECT_NE(first->stack_id, other->stack_id);
  const merge_stack_t* const stack =
      QBAllocateMemoryMonitor::oom_stacks_hashmap()->lookupStack(first->stack_id);
  ASSERT_NE(stack, nullptr);
  EXPECT_EQ(stack->count, 10U);
  EXPECT_EQ(stack->is_logged, 1U);
}

TEST_F(LiveHeapTest, CountsFromBeforeTheFirstConstructorToAfterTheLastDestructor) {
  EXPECT_EQ(outputOf(HEAP_HOST), "live 3\nstatus 0");
}

TEST_F(LiveHeapTest, AProgramWithAnAllocatorOfItsOwnIsToldSoOnce) {
  const std::string output = outputOf(HEAP_HOST_OWN_ALLOCATOR);
  EXPECT_THAT(output, testing::HasSubstr("counted 0\nstatus 0"));
  const std::size_t first = output.find("an allocator of its own");
  ASSERT_NE(first, std::string::npos) << output;
  EXPECT_EQ(output.find("an allocator of its own", first + 1), std::string::npos);
}

struct Program {
  const char* name;
  const char* command;
  friend std::ostream& operator<<(std::ostream& out, const Program& program) { return out << program.name; }
};

class UnmodifiedProgramTest : public LiveHeapTest, public ::testing::WithParamInterface<Program> {};

std::string outputInFreshFolder(const std::string& environment, const std::string& command) {
  const std::string folder = testing::TempDir() + "unmodified_" + std::to_string(getpid());
  std::filesystem::create_directory(folder);
  std::ofstream(folder + "/source.c")
      << "#include <stdio.h>\nint main(void) { return puts(\"made\") < 0; }\n";
  std::string output = outputOf("cd " + folder + " && export LC_ALL=C && " + environment + command);
  std::filesystem::remove_all(folder);
  return output;
}

TEST_P(UnmodifiedProgramTest, DoesTheSameUnderTheLibrary) {
  const Program& program = GetParam();
  if (!outputOf("command -v " + std::string(program.name)).ends_with("status 0"))
    GTEST_SKIP() << program.name << " is not installed";
  const std::string plain = outputInFreshFolder("", program.command);
  EXPECT_EQ(outputInFreshFolder("export LD_PRELOAD=" PLATFORM_LIBRARY " && ", program.command), plain);
  EXPECT_EQ(
      outputInFreshFolder("export LD_PRELOAD=" PLATFORM_LIBRARY ":" HEAP_COUNTER " && ", program.command),
      plain)
      << "while everything is counted";
  EXPECT_TRUE(plain.ends_with("status 0")) << plain;
}

constexpr Program kPrograms[] = {
    {"bash", "bash -c 'for i in $(seq 2000); do a[$i]=$i; done; echo ${#a[@]} $(echo nested | rev)'"},
    {"python3",
     "python3 -c 'import json, threading, subprocess\n"
     "out = []\n"
     "t = [threading.Thread(target=lambda n=n: out.append(len(json.dumps(list(range(n)))))) for n in "
     "range(200)]\n"
     "[x.start() for x in t]; [x.join() for x in t]\n"
     "print(sum(out), subprocess.check_output([\"echo\", \"child\"]))'"},
    {"git",
     "sh -c 'git init -q . && git add source.c && git -c user.name=a -c user.email=a@b commit -qm one && "
     "git ls-tree HEAD && git grep -c main'"},
    {"perl",
     "perl -e 'my %h = map { $_ => \"x\" x $_ } 1..3000; my $n = 0; $n += length for values %h; print "
     "\"$n\\n\"'"},
    {"gcc", "sh -c 'gcc -O2 -o made source.c && ./made'"},
    {"java", "java -Xshare:auto -version >/dev/null && echo ran"},
    {"node",
     "node -e 'const m = new Map(); for (let i = 0; i < 1e5; ++i) m.set(i, String(i)); console.log(m.size)'"},
    {"convert", "convert -size 300x200 gradient:red-blue -blur 0x3 -resize 50% -depth 8 rgb:- | cksum"},
};

INSTANTIATE_TEST_SUITE_P(Installed, UnmodifiedProgramTest, ::testing::ValuesIn(kPrograms),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
