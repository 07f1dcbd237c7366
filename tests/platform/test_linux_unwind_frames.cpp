// Frame pointers that nobody saved: what a function's bytes tell of its frame, and which words of a stack are
// believed.
#include <alloca.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "vitalscope/platform/linux/unwind.h"
#include "vitalscope/platform/linux/unwind_call_site.h"
#include "vitalscope/platform/linux/unwind_prologue.h"

#if defined(__x86_64__)

namespace {

using namespace qbv::linux_backend;
using Bytes = std::vector<std::uint8_t>;

struct Prologue {
  const char* compiler;
  Bytes code;
  std::uint64_t savedWords, size;
  bool first, grows;
};

const Prologue kPrologues[] = {
    {"gcc -O0", {0x55, 0x48, 0x89, 0xe5, 0x48, 0x81, 0xec, 0xf0, 0, 0, 0, 0x48, 0x89}, 0, 0xf0, true, false},
    {"clang -O0, marked",
     {0xf3, 0x0f, 0x1e, 0xfa, 0x55, 0x48, 0x89, 0xe5, 0x48, 0x83, 0xec, 0x20},
     0,
     0x20,
     true,
     false},
    {"gcc -O1", {0x55, 0x48, 0x89, 0xe5, 0x53, 0x48, 0x81, 0xec, 0xd8, 0, 0, 0, 0x48}, 1, 0xe0, true, false},
    {"gcc -O2, other work between",
     {0x55, 0xba, 0x28, 0x23, 0,    0,    0x48, 0x89, 0xe5, 0x41, 0x56, 0x49, 0x89, 0xfe, 0x41, 0x55, 0x4c,
      0x8d, 0xad, 0xb0, 0xdc, 0xff, 0xff, 0x41, 0x54, 0x53, 0x48, 0x81, 0xec, 0x30, 0x23, 0,    0,    0xe8},
     4,
     0x2350,
     true,
     false},
    {"clang -O2, a push to align",
     {0x55, 0x48, 0x89, 0xe5, 0x41, 0x57, 0x41, 0x56, 0x41, 0x55, 0x41, 0x54, 0x53, 0x50, 0x4c, 0x89},
     5,
     48,
     false,
     false},
    {"gcc -O1, no locals", {0x55, 0x48, 0x89, 0xe5, 0xe8, 0, 0, 0, 0}, 0, 0, true, false},
    {"gcc, 128 bytes", {0x55, 0x48, 0x89, 0xe5, 0x48, 0x83, 0xc4, 0x80}, 0, 128, true, false},
    {"gcc -fstack-clash-protection",
     {0x55, 0x48, 0x89, 0xe5, 0x53, 0x41, 0x54, 0x48, 0x81, 0xec, 0,    0x10, 0,
      0,    0x48, 0x83, 0x0c, 0x24, 0,    0x48, 0x81, 0xec, 0,    0x10, 0,    0,
      0x48, 0x83, 0x0c, 0x24, 0,    0x48, 0x81, 0xec, 0x30, 0x03, 0,    0},
     2,
     0x2340,
     false,
     false},
    {"gcc, alloca", {0x55, 0x48, 0x89, 0xe5, 0x48, 0x83, 0xec, 0x10, 0x48, 0x29, 0xc4}, 0, 0x10, true, true},
    {"clang, alloca", {0x55, 0x48, 0x89, 0xe5, 0x53, 0x50, 0x48, 0x89, 0xdc}, 1, 0x10, false, true},
    {"leaves and goes on",
     {0x55, 0x48, 0x89, 0xe5, 0x48, 0x83, 0xec, 0x10, 0x48, 0x89, 0xec},
     0,
     16,
     true,
     false},
};

TEST(UnwindPrologue, sizesOfFramesAsCompilersMakeThem) {
  for (const Prologue& prologue : kPrologues) {
    SCOPED_TRACE(prologue.compiler);
    const FrameSizes sizes = frameSizes(prologue.code, prologue.savedWords);
    EXPECT_NE(std::find(sizes.begin(), sizes.end(), prologue.size), sizes.end());
    EXPECT_EQ(*sizes.begin() == prologue.size, prologue.first);
    EXPECT_EQ(sizes.grows, prologue.grows);
  }
}

struct CallBytes {
  Bytes code;
  CallForm form;
  std::uint64_t target;
};

TEST(UnwindCallSite, callsAreKnownByTheirBytes) {
  const CallBytes calls[] = {
      {{0xe8, 0x10, 0, 0, 0}, CallForm::direct, 0x5010},
      {{0xe8, 0xf0, 0xff, 0xff, 0xff}, CallForm::direct, 0x4ff0},
      {{0xff, 0x15, 0x20, 0, 0, 0}, CallForm::slot, 0x5020},
      {{0xff, 0xd0}, CallForm::indirect, 0},
      {{0x41, 0xff, 0xd4}, CallForm::indirect, 0},
      {{0xff, 0x50, 0x18}, CallForm::indirect, 0},
      {{0xff, 0x14, 0xc3}, CallForm::indirect, 0},
      {{0xff, 0x54, 0x24, 0x08}, CallForm::indirect, 0},
      {{0xff, 0x90, 0, 1, 0, 0}, CallForm::indirect, 0},
      {{0xff, 0x94, 0x24, 0, 1, 0, 0}, CallForm::indirect, 0},
      {{0xff, 0x14, 0xc5, 0, 1, 0, 0}, CallForm::indirect, 0},
      {{0xe9, 0x10, 0, 0, 0}, CallForm::none, 0},
      {{0xff, 0x25, 0x20, 0, 0, 0}, CallForm::none, 0},
      {{0xff, 0xe0}, CallForm::none, 0},
      {{0x48, 0x89, 0xc7}, CallForm::none, 0},
  };
  for (const CallBytes& call : calls) {
    Bytes code(8, 0x90);
    std::copy_backward(call.code.begin(), call.code.end(), code.end());
    SCOPED_TRACE(testing::PrintToString(call.code));
    const CallSite found = callBefore(code, 0x5000);
    EXPECT_EQ(found.form, call.form);
    EXPECT_EQ(found.target, call.target);
  }
}

// Between two pages that must not be touched.
TEST(UnwindPrologue, hostileBytesAreNeverReadBeyond) {
  constexpr std::size_t kPage = 4096;
  auto* const pages =
      static_cast<std::uint8_t*>(mmap(nullptr, 3 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(pages, MAP_FAILED);
  std::uint8_t* const bytes = pages + kPage;
  ASSERT_EQ(mprotect(bytes, kPage, PROT_READ | PROT_WRITE), 0);
  constexpr std::uint8_t kUsual[] = {0x48, 0x81, 0xec, 0x83, 0xc4, 0x8d, 0x24, 0x89, 0xe5, 0x4c, 0x9c, 0xff};
  std::minstd_rand random(11);
  for (int round = 0; round < 2000; ++round) {
    for (std::size_t i = 0; i < kPage; ++i) {
      bytes[i] =
          random() % 3 == 0 ? static_cast<std::uint8_t>(random() >> 8) : kUsual[random() % sizeof kUsual];
    }
    const std::size_t size = round < 64 ? static_cast<std::size_t>(round) : random() % kPage;
    for (const std::span<const std::uint8_t> code :
         {std::span<const std::uint8_t>(bytes + kPage - size, size), {bytes, size}}) {
      const FrameSizes sizes = frameSizes(code, random() % 7);
      EXPECT_LE(sizes.count(), FrameSizes::kMost);
      for (const std::uint64_t found : sizes) EXPECT_TRUE(found % 8 == 0 && found < 1 << 20) << found;
      callBefore(code, 0x1000);
    }
    if (round < 1900) round += 3;
  }
  munmap(pages, 3 * kPage);
}

// The calling thread's stack with the two registers that the kernel tells of a waiting thread.
struct TwoRegisters {
  Registers registers;
  std::uint64_t base = 0;
  std::vector<std::byte> stack;

  std::vector<std::uint64_t> walk(WalkEnd& end) const {
    std::vector<std::uint64_t> addresses(200);
    const StackView view{stack.data(), base, stack.size(), nullptr};
    const Walk result = walkStack(registers, view, addresses.data(), addresses.size());
    addresses.resize(result.count);
    end = result.end;
    return addresses;
  }
  std::uint64_t word(std::uint64_t address) const {
    std::uint64_t value = 0;
    std::memcpy(&value, stack.data() + (address - base), sizeof value);
    return value;
  }
  void put(std::uint64_t address, std::uint64_t value) {
    std::memcpy(stack.data() + (address - base), &value, sizeof value);
  }
};

#define QBV_PLAIN                                                                  \
  __attribute__((noinline, noclone, no_sanitize("address", "thread", "undefined"), \
                 optimize("no-omit-frame-pointer", "no-optimize-sibling-calls")))

TwoRegisters gTaken;
std::uint64_t gFramePointer;  // of the function whose frame grows
char* gGrown;

void copyStack(std::uint64_t pc, std::uint64_t sp) {
  gTaken = {};
  gTaken.registers.set(kProgramCounter, pc);
  gTaken.registers.set(kStackPointer, sp);
  gTaken.base = sp;
  gTaken.stack.resize(reinterpret_cast<std::uint64_t>(__builtin_thread_pointer()) - sp);
  const iovec local{gTaken.stack.data(), gTaken.stack.size()};
  const iovec remote{reinterpret_cast<void*>(sp), gTaken.stack.size()};
  process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
}

QBV_PLAIN void take() {
  std::uint64_t pc = 0, sp = 0;
  asm volatile("lea 0(%%rip), %0\n\tmov %%rsp, %1" : "=r"(pc), "=r"(sp));
  copyStack(pc, sp);
  asm volatile("" ::: "memory");
}

QBV_PLAIN void growAndTake(std::size_t size) {
  gFramePointer = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
  gGrown = static_cast<char*>(alloca(size));
  std::memset(gGrown, 0, size);
  take();
  asm volatile("" ::: "memory");
}

QBV_PLAIN void callGrowing() {
  growAndTake(512);
  asm volatile("" ::: "memory");
}

// Where the walk stands in growAndTake: take() called it, so its own record tells.
TEST(UnwindFrames, oneRecordIsFoundAndTwoAreNot) {
  std::thread(callGrowing).join();
  WalkEnd end{};
  const std::vector<std::uint64_t> right = gTaken.walk(end);
  EXPECT_EQ(end, WalkEnd::outermost);
  ASSERT_GE(right.size(), 4U);
  EXPECT_EQ(right[1], gTaken.word(gFramePointer + 8)) << "the caller of the function whose frame grows";

  // Now the walk begins in that function, behind its call, with nothing known but its stack pointer.
  TwoRegisters inside = gTaken;
  inside.registers.set(kProgramCounter, right[0] - 1);
  const auto grown = reinterpret_cast<std::uint64_t>(gGrown) / 16 * 16 + 16;
  inside.registers.set(kStackPointer, grown - 16);
  const std::vector<std::uint64_t> outer(right.begin() + 1, right.end());
  EXPECT_EQ(inside.walk(end), outer);
  EXPECT_EQ(end, WalkEnd::outermost);

  // What an earlier call might have left there.
  inside.put(grown + 128, inside.word(gFramePointer));
  inside.put(grown + 136, inside.word(gFramePointer + 8));
  EXPECT_TRUE(inside.walk(end).empty());
  EXPECT_EQ(end, WalkEnd::needsRegisters);

  // A record of another function's call does not count, nor does one that leads nowhere.
  inside.put(grown + 136, right[0]);
  EXPECT_EQ(inside.walk(end), outer);
  inside.put(grown + 128, 0x1234);
  inside.put(grown + 136, right.back());
  EXPECT_EQ(inside.walk(end), outer);
}

}  // namespace

#endif
