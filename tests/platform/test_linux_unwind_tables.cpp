// Frame tables of every kind, made by hand: what they mean, and that damaged ones end the walk.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "tests/platform/unwind_table_builder.h"
#include "vitalscope/platform/linux/unwind.h"
#include "vitalscope/platform/linux/unwind_program.h"

namespace {

using namespace qbv::linux_backend;

constexpr std::uint64_t kStackBase = 0x7000'0000'0000;
constexpr unsigned kRbx = 3, kRbp = 6, kRsp = 7, kR12 = 12;

TableBuilder* gTables;

bool tablesAt(std::uint64_t pc, UnwindImage& image) {
  if (pc - gTables->code(0) >= 64 * TableBuilder::kFunctionSize) return false;
  image = gTables->image();
  return true;
}

// A stack of words from kStackBase on.
struct Stack {
  explicit Stack(std::vector<std::uint64_t> content) : words(std::move(content)) {}
  StackView view() const {
    return {reinterpret_cast<const std::byte*>(words.data()), kStackBase, words.size() * 8, nullptr};
  }
  std::vector<std::uint64_t> words;
};

Registers at(std::uint64_t pc, std::uint64_t sp = kStackBase) {
  Registers registers;
  registers.set(kProgramCounter, pc);
  registers.set(kStackPointer, sp);
  return registers;
}

struct Found {
  Walk walk;
  std::vector<std::uint64_t> addresses;
};

Found walkTables(TableBuilder& tables, const Registers& registers, const Stack& stack, std::size_t max = 50,
                 RowCache* cache = nullptr) {
  gTables = &tables;
  Found found;
  found.addresses.resize(max);
  found.walk = walkFrames(registers, stack.view(), tablesAt, cache, 0, found.addresses.data(), max);
  found.addresses.resize(found.walk.count);
  return found;
}

// def_cfa_expression, expression and val_expression.
Bytes frameExpression(const Bytes& block) {
  return Bytes{0x0f, static_cast<std::uint8_t>(block.size())} + block;
}
Bytes registerExpression(std::uint8_t operation, std::uint8_t number, const Bytes& block) {
  return Bytes{operation, number, static_cast<std::uint8_t>(block.size())} + block;
}

// What an expression gives with rbx 5, rbp at kStackBase + 8, the stack {0x1122334455667788, 7}, by way of
// rbx's rule val_expression.
std::uint64_t valueOf(const Bytes& block, StepStatus& status) {
  const Stack stack({0x1122334455667788, 7});
  Registers registers = at(0);
  registers.set(kRbx, 5);
  registers.set(kRbp, kStackBase + 8);
  const StackView view = stack.view();
  FrameInput input(registers, view);
  const Bytes bytes = block;
  const auto begin = reinterpret_cast<std::uint64_t>(bytes.data());
  const std::uint64_t value = evaluate({begin, begin + bytes.size()}, input, nullptr);
  status = input.status();
  return value;
}

TEST(UnwindTables, expressionsGiveTheirValue) {
  const struct {
    Bytes block;
    std::uint64_t value;
  } cases[] = {
      {Bytes{0x73, 0x7f}, 4},                                     // breg3 -1
      {Bytes{0x92, 3, 2}, 7},                                     // bregx
      {Bytes{0x76, 0, 0x06}, 7},                                  // breg6; deref
      {Bytes{0x77, 4, 0x94, 4}, 0x11223344},                      // breg7 + 4; deref_size 4
      {Bytes{0x76, 7, 0x94, 1}, 0},                               // the last byte of the copy
      {Bytes{0x08, 0xfe}, 0xfe},                                  // const1u
      {Bytes{0x09, 0xfe}, ~std::uint64_t{1}},                     // const1s
      {Bytes{0x0b, 0xff, 0x7f}, 0x7fff},                          // const2s
      {Bytes{0x0d} + little(0x80000000, 4), 0xffffffff80000000},  // const4s
      {Bytes{0x0e} + little(0x123456789abcdef0, 8), 0x123456789abcdef0},
      {Bytes{0x03} + little(0xfeed, 8), 0xfeed},           // addr
      {Bytes{0x10, 0xe5, 0x8e, 0x26}, 624485},             // constu
      {Bytes{0x11, 0x80, 0x7f}, ~std::uint64_t{127}},      // consts
      {Bytes{0x35, 0x33, 0x1c}, 2},                        // 5 3 minus
      {Bytes{0x09, 0xf9, 0x32, 0x1b}, ~std::uint64_t{2}},  // -7 / 2
      {Bytes{0x0e} + little(std::uint64_t{1} << 63, 8) + Bytes{0x09, 0xff, 0x1b}, std::uint64_t{1} << 63},
      {Bytes{0x37, 0x34, 0x1d}, 3},                                       // 7 mod 4
      {Bytes{0x09, 0xff, 0x34, 0x26}, ~std::uint64_t{0}},                 // -1 shra 4
      {Bytes{0x09, 0xff, 0x08, 60, 0x25}, 15},                            // -1 shr 60
      {Bytes{0x31, 0x08, 64, 0x24}, 0},                                   // 1 shl 64
      {Bytes{0x09, 0xfb, 0x19}, 5},                                       // abs
      {Bytes{0x35, 0x1f, 0x20}, 4},                                       // neg, not
      {Bytes{0x33, 0x23, 0x80, 0x01}, 131},                               // plus_uconst
      {Bytes{0x09, 0xff, 0x31, 0x2d}, 1},                                 // -1 lt 1
      {Bytes{0x31, 0x32, 0x33, 0x17, 0x1c, 0x1c}, 3 - (1 - 2)},           // rot: 3 1 2
      {Bytes{0x31, 0x32, 0x16, 0x1c}, 1},                                 // swap
      {Bytes{0x39, 0x31, 0x32, 0x15, 2}, 9},                              // pick
      {Bytes{0x39, 0x31, 0x14}, 9},                                       // over
      {Bytes{0x31, 0x28, 1, 0, 0x96, 0x38}, 8},                           // bra over a nop
      {Bytes{0x33, 0x31, 0x1c, 0x12, 0x28, 0xfa, 0xff, 0x3a, 0x22}, 10},  // a loop from 3 down to 0, plus 10
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    StepStatus status{};
    const std::uint64_t value = valueOf(cases[i].block, status);
    EXPECT_EQ(status, StepStatus::ok) << "case " << i;
    EXPECT_EQ(value, cases[i].value) << "case " << i;
  }
}

TEST(UnwindTables, senselessExpressionsFail) {
  const struct {
    Bytes block;
    StepStatus status;
  } cases[] = {
      {Bytes{}, StepStatus::damaged},                        // nothing on the stack
      {Bytes{0x22}, StepStatus::damaged},                    // plus of nothing
      {Bytes{0x31, 0x30, 0x1b}, StepStatus::damaged},        // division by 0
      {Bytes{0x31, 0x30, 0x1d}, StepStatus::damaged},        // rest of a division by 0
      {Bytes{0x2f, 0xfd, 0xff}, StepStatus::damaged},        // a loop without end
      {Bytes{0x31, 0x2f, 0xfc, 0xff}, StepStatus::damaged},  // a loop that fills the stack
      {Bytes{0x2f, 0x00, 0x70}, StepStatus::damaged},        // a jump far out
      {Bytes{0x10, 0x80, 0x80}, StepStatus::damaged},        // an operand that does not end
      {Bytes{0x31, 0x94, 3}, StepStatus::damaged},           // three bytes
      {Bytes{0xe0}, StepStatus::damaged},                    // unknown
      {Bytes{0x92, 0x90, 1, 0}, StepStatus::damaged},        // register 144
      {Bytes{0x30, 0x06}, StepStatus::unreadable},           // memory at 0
      {Bytes{0x7c, 0}, StepStatus::needsRegister},           // r12
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    StepStatus status{};
    valueOf(cases[i].block, status);
    EXPECT_EQ(status, cases[i].status) << "case " << i;
  }
}

// The rules of a program at an offset into its function.
Row rulesOf(const Bytes& program, std::uint64_t offset, bool expected = true) {
  TableBuilder tables;
  tables.addFunction(program);
  const UnwindImage& image = tables.build();
  FrameEntry entry;
  Row row{};
  EXPECT_TRUE(findFrameEntry(image, tables.code(0) + offset, entry));
  EXPECT_EQ(rulesAt(entry, tables.code(0) + offset, row), expected);
  return row;
}

TEST(UnwindTables, programsGiveTheRulesOfEachAddress) {
  // push rbp; at 4 mov rbp, rsp; at 20 an early way out, remembered and recalled at 30.
  const Bytes program{0x41, 0x0e, 16, 0x86, 2,    0x43, 0x0d, 6,    0x50,
                      0x0a, 0x0c, 7,  8,    0xc6, 0x4a, 0x0b, 0x0e, 24};
  EXPECT_EQ(rulesOf(program, 0).frame.operand, 8);
  EXPECT_EQ(rulesOf(program, 0).rules[kRbp].kind, RuleKind::unspecified);
  EXPECT_EQ(rulesOf(program, 1).frame.operand, 16);
  EXPECT_EQ(rulesOf(program, 3).frameRegister, kRsp);
  EXPECT_EQ(rulesOf(program, 4).frameRegister, kRbp);
  EXPECT_EQ(rulesOf(program, 4).rules[kRbp].operand, -16);
  EXPECT_EQ(rulesOf(program, 29).frameRegister, kRsp);
  EXPECT_EQ(rulesOf(program, 29).rules[kRbp].kind, RuleKind::unspecified);
  EXPECT_EQ(rulesOf(program, 30).frameRegister, kRbp);
  EXPECT_EQ(rulesOf(program, 30).frame.operand, 24);
  EXPECT_EQ(rulesOf(program, 255).rules[kRbp].operand, -16);
}

TEST(UnwindTables, everyRuleOperationIsUnderstood) {
  const auto rule = [](const Bytes& program, unsigned number) { return rulesOf(program, 0).rules[number]; };
  EXPECT_EQ(rule({0x05, 12, 3}, kR12).operand, -24);
  EXPECT_EQ(rule({0x11, 12, 0x7f}, kR12).operand, 8);
  EXPECT_EQ(rule({0x2f, 12, 3}, kR12).operand, 24);
  EXPECT_EQ(rule({0x14, 12, 2}, kR12).kind, RuleKind::frameRelative);
  EXPECT_EQ(rule({0x15, 12, 0x7e}, kR12).operand, 16);
  EXPECT_EQ(rule({0x09, 12, 3}, kR12).kind, RuleKind::inRegister);
  EXPECT_EQ(rule({0x07, 16}, kProgramCounter).kind, RuleKind::undefined);
  EXPECT_EQ(rule({0x07, 16, 0x06, 16}, kProgramCounter).operand, -8);
  EXPECT_EQ(rule({0x8c, 2, 0x08, 12}, kR12).kind, RuleKind::same);
  EXPECT_EQ(rule({0x10, 12, 1, 0x30}, kR12).kind, RuleKind::savedAt);
  EXPECT_EQ(rule({0x16, 12, 1, 0x30}, kR12).length, 1U);
  EXPECT_EQ(rule({0x05, 60, 3, 0x8c, 1}, kR12).operand, -8);  // a register nobody needs is passed over
  EXPECT_EQ(rulesOf({0x12, 6, 0x7e}, 0).frame.operand, 16);
  EXPECT_EQ(rulesOf({0x13, 0x7d}, 0).frame.operand, 24);
  EXPECT_EQ(rulesOf({0x03, 200, 0, 0x0e, 32}, 199).frame.operand, 8);
  EXPECT_EQ(rulesOf({0x04, 200, 0, 0, 0, 0x0e, 32}, 200).frame.operand, 32);
}

TEST(UnwindTables, senselessProgramsFail) {
  rulesOf({0x0b}, 0, false);                    // recalls what was never remembered
  rulesOf(Bytes(17, 0x0a), 0, false);           // remembers too much
  rulesOf({0x3f}, 0, false);                    // unknown
  rulesOf({0x0e, 0x80}, 0, false);              // an operand that does not end
  rulesOf({0x0f, 0x7f, 0x30}, 0, false);        // an expression longer than the program
  rulesOf({0x0f, 1, 0x30, 0x0e, 8}, 0, false);  // an offset to an expression
}

// Two callers of function 0 inside functions 1 and 2; function 2 is the outermost.
struct Chain {
  Chain(const Bytes& innermost, const Bytes& middle) {
    tables.addFunction(innermost);
    tables.addFunction(middle);
    tables.addFunction({0x07, 16});
    tables.build();
    inMiddle = tables.code(1) + 10;
    inOutermost = tables.code(2) + 10;
  }
  TableBuilder tables;
  std::uint64_t inMiddle = 0, inOutermost = 0;
};

TEST(UnwindTables, aWalkEndsAtTheFunctionWithoutCaller) {
  Chain chain({}, {0x0e, 16});
  const Found found =
      walkTables(chain.tables, at(chain.tables.code(0)), Stack({chain.inMiddle, 0, chain.inOutermost, 0}));
  EXPECT_EQ(found.walk.end, WalkEnd::outermost);
  EXPECT_EQ(found.addresses, (std::vector<std::uint64_t>{chain.inMiddle, chain.inOutermost}));
  EXPECT_EQ(walkTables(chain.tables, at(chain.tables.code(0)), Stack({chain.inMiddle, 0, 0}), 1).walk.end,
            WalkEnd::full);
  EXPECT_EQ(walkTables(chain.tables, at(chain.tables.code(0)), Stack({chain.inMiddle})).walk.end,
            WalkEnd::leftCopy);
}

// The middle function's frame hangs on rbp. Either the innermost function saved it, or the snapshot knows it,
// or the caller has to ask again; but not when the innermost function declares it lost.
TEST(UnwindTables, aRegisterIsAskedForOnlyWhenTheSnapshotCouldKnowIt) {
  const Bytes byFramePointer{0x0c, 6, 16};
  const Stack stack({kStackBase + 16, 0, 0, 0});
  for (const bool saved : {true, false}) {
    Chain chain(saved ? Bytes{0x0e, 16, 0x86, 2} : Bytes{0x0e, 16}, byFramePointer);
    Stack filled({kStackBase + 16, chain.inMiddle, 0, chain.inOutermost});
    Registers registers = at(chain.tables.code(0));
    Found found = walkTables(chain.tables, registers, filled);
    EXPECT_EQ(found.walk.end, saved ? WalkEnd::outermost : WalkEnd::needsRegisters);
    EXPECT_EQ(found.walk.missing, saved ? kRegisterCount : kRbp);
    EXPECT_EQ(found.walk.count, saved ? 2U : 1U);
    registers.set(kRbp, kStackBase + 16);
    EXPECT_EQ(walkTables(chain.tables, registers, filled).addresses.size(), 2U);
  }
  Chain lost({0x0e, 16, 0x07, 6}, byFramePointer);
  Registers registers = at(lost.tables.code(0));
  EXPECT_EQ(walkTables(lost.tables, registers, Stack({0, lost.inMiddle, 0, lost.inOutermost})).walk.end,
            WalkEnd::broken);
}

// A stub that pushes at its 11th byte, as linkers describe it: rsp + 8 + 8 * ((pc & 15) >= 11).
TEST(UnwindTables, frameAddressesAndSavedRegistersMayBeExpressions) {
  const Bytes stub{0x77, 8, 0x80, 0, 0x3f, 0x1a, 0x3b, 0x2a, 0x33, 0x24, 0x22};
  Chain chain(frameExpression(stub), {});
  for (const std::uint64_t offset : {0U, 10U, 11U, 15U}) {
    const Stack stack(offset < 11 ? std::vector<std::uint64_t>{chain.inMiddle, chain.inOutermost}
                                  : std::vector<std::uint64_t>{0, chain.inMiddle, chain.inOutermost});
    const std::uint64_t pc = (chain.tables.code(0) + 15) / 16 * 16 + offset;
    EXPECT_EQ(walkTables(chain.tables, at(pc), stack).addresses.size(), 2U) << offset;
  }
  // rbx's rule finds it through the frame address, which is on the expression's stack.
  Chain saved(Bytes{0x0e, 24} + registerExpression(0x10, 3, {0x38, 0x1c, 0x38, 0x1c}), {0x0c, 3, 8});
  const Found found = walkTables(saved.tables, at(saved.tables.code(0)),
                                 Stack({0, kStackBase + 24, saved.inMiddle, saved.inOutermost}));
  EXPECT_EQ(found.addresses.size(), 2U);
  // The stack pointer has a rule of its own: the frame address only names the frame.
  Chain named(frameExpression({0x77, 1}) + registerExpression(0x16, 16, {0x77, 0, 0x06}) +
                  registerExpression(0x16, 7, {0x77, 8}),
              {});
  EXPECT_EQ(walkTables(named.tables, at(named.tables.code(0)), Stack({named.inMiddle, named.inOutermost}))
                .addresses.size(),
            2U);
}

TEST(UnwindTables, aFrameAddressThatDoesNotGrowEndsTheWalk) {
  Chain chain({}, {0x0c, 3, 8});  // the middle function's frame hangs on rbx and never moves
  Registers registers = at(chain.tables.code(0), kStackBase + 8);
  registers.set(kRbx, kStackBase + 8);
  const Found found = walkTables(chain.tables, registers, Stack({0, chain.inMiddle, chain.inMiddle, 0}));
  EXPECT_EQ(found.walk.end, WalkEnd::broken);
  EXPECT_EQ(found.walk.count, 1U);
}

TEST(UnwindTables, signalFramesContinueAtTheVeryInstruction) {
  // The interrupted function's only instruction with a deeper frame is its first: pc - 1 would miss it.
  TableBuilder tables("zRS");
  tables.addFunction(Bytes{0x0c, 7, 24, 0x90, 2, 0x87, 1});
  tables.addFunction({0x0e, 24, 0x41, 0x0e, 8});
  tables.addFunction({0x07, 16});
  tables.build();
  // The signal frame saves rsp (which points below, to where the interrupted function stood) and the address.
  const Stack stack({0, tables.code(1), kStackBase + 40, 0, 0, 0, 0, tables.code(2) + 1});
  const Found found = walkTables(tables, at(tables.code(0)), stack);
  EXPECT_EQ(found.walk.end, WalkEnd::outermost);
  EXPECT_EQ(found.addresses, (std::vector<std::uint64_t>{tables.code(1), tables.code(2) + 1}));
}

TEST(UnwindTables, entriesAreFoundWithAndWithoutSearchTable) {
  for (const bool table : {true, false}) {
    TableBuilder tables;
    if (!table) tables.leaveSearchTableOut();
    for (int i = 0; i < 20; ++i) tables.addFunction({});
    const UnwindImage& image = tables.build();
    FrameEntry entry;
    for (std::size_t i = 0; i < 20; ++i) {
      ASSERT_TRUE(findFrameEntry(image, tables.code(i) + 255, entry));
      EXPECT_EQ(entry.code.begin, tables.code(i));
    }
    EXPECT_FALSE(findFrameEntry(image, tables.code(0) - 1, entry));
    EXPECT_FALSE(findFrameEntry(image, tables.code(20), entry));
  }
}

TEST(UnwindTables, compactRowsWalkAsTheFullOnes) {
  auto cache = std::make_unique<RowCache>();
  Chain chain({0x0e, 24, 0x86, 3, 0x83, 2}, {0x0c, 6, 16});
  const Stack stack({kStackBase + 24, 0, chain.inMiddle, 0, chain.inOutermost});
  const Registers registers = at(chain.tables.code(0));
  const Found cold = walkTables(chain.tables, registers, stack, 50, cache.get());
  CompactRow row;
  EXPECT_TRUE(cache->find(chain.tables.code(0), 0, row));
  EXPECT_EQ(row.frameOffset, 24);
  EXPECT_FALSE(cache->find(chain.tables.code(0), 1, row)) << "another generation";
  const Found warm = walkTables(chain.tables, registers, stack, 50, cache.get());
  EXPECT_EQ(warm.addresses, cold.addresses);
  EXPECT_EQ(warm.addresses, walkTables(chain.tables, registers, stack).addresses);
  EXPECT_EQ(warm.walk.end, WalkEnd::outermost);
}

// Every place is fought over; what is found must be what was stored for that very address.
TEST(UnwindTables, theCacheNeverMixesRowsOfDifferentAddresses) {
  auto cache = std::make_unique<RowCache>();
  const auto rowFor = [](std::uint64_t pc) {
    CompactRow row;
    row.frameOffset = static_cast<std::int32_t>(pc * 77);
    row.frameRegister = static_cast<std::uint8_t>(pc % 16);
    for (std::size_t i = 0; i < row.saved.size(); ++i) row.saved[i] = static_cast<std::uint8_t>(pc >> i);
    return row;
  };
  std::atomic<int> found{0}, wrong{0};
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed) {
    threads.emplace_back([&, seed] {
      std::minstd_rand random(seed);
      for (int i = 0; i < 100000; ++i) {
        const std::uint64_t pc = random() % 20000;
        CompactRow row;
        if (!cache->find(pc, 1, row)) {
          cache->store(pc, 1, rowFor(pc));
        } else {
          ++found;
          if (!(row == rowFor(pc))) ++wrong;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(found, 1000);
}

// Each byte of valid tables replaced by hostile values, and the tables cut at each place: the walk ends.
TEST(UnwindTables, damagedTablesEndTheWalk) {
  const auto walkOne = [](TableBuilder& tables, const Chain& chain) {
    Registers registers = at(tables.code(0));
    registers.set(kRbx, kStackBase);
    const Found found = walkTables(tables, registers, Stack({chain.inMiddle, 0, chain.inOutermost, 0}), 20);
    EXPECT_LE(found.walk.count, 20U);
  };
  Chain chain(frameExpression({0x77, 8}) + registerExpression(0x10, 3, {0x38, 0x1c}), {0x0e, 16, 0x41, 0x0a});
  Bytes& memory = chain.tables.memory();
  for (std::uint8_t& byte : memory) {
    const std::uint8_t before = byte;
    for (const int value : {0x00, 0x01, 0x7f, 0x80, 0xff, before ^ 0x10, before + 1}) {
      byte = static_cast<std::uint8_t>(value);
      walkOne(chain.tables, chain);
    }
    byte = before;
  }
  const Bytes whole = memory;
  for (std::size_t size = 0; size < whole.size(); ++size) {
    // A block of exactly that size, so that a sanitizer sees the first byte read behind it. The distance to
    // the code changes; what matters is that nothing outside is touched.
    const std::unique_ptr<std::uint8_t[]> cut(new std::uint8_t[size]);
    std::copy_n(whole.begin(), size, cut.get());
    UnwindImage image;
    image.frameHeader = reinterpret_cast<std::uint64_t>(cut.get());
    image.addSegment({image.frameHeader, image.frameHeader + size});
    FrameEntry entry;
    Row row;
    const std::uint64_t pc = image.frameHeader + (1U << 20);
    if (findFrameEntry(image, pc, entry)) rulesAt(entry, pc, row);
  }
}

}  // namespace
