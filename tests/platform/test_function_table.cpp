#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "vitalscope/platform/linux/function_table.h"

namespace qbv::linux_backend {
namespace {

struct Line {
  std::uint64_t address;
  std::string name;
  bool operator==(const Line&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Line& line) {
  return out << std::hex << line.address << " " << line.name;
}

// Writes an ELF symbol table and asks for the function table of the code 0x1000 to 0x2000.
class Table {
 public:
  Table& add(const char* name, std::uint64_t value, std::uint64_t size, unsigned bind = STB_GLOBAL,
             unsigned type = STT_FUNC, std::uint16_t section = 1) {
    ElfW(Sym) symbol{};
    symbol.st_name = static_cast<std::uint32_t>(strings_.size());
    symbol.st_info = static_cast<unsigned char>(ELF64_ST_INFO(bind, type));
    symbol.st_shndx = section;
    symbol.st_value = value;
    symbol.st_size = size;
    strings_ += name;
    strings_ += '\0';
    symbols_.push_back(symbol);
    return *this;
  }
  Table& start(std::uint64_t address) {
    EXPECT_TRUE(table_.starts().push(address));
    return *this;
  }
  Table& cutLastName() {
    strings_.pop_back();
    return *this;
  }
  std::vector<Line> lines() {
    std::vector<std::uint8_t> bytes(symbols_.size() * sizeof(ElfW(Sym)) + strings_.size());
    const std::size_t strings = symbols_.size() * sizeof(ElfW(Sym));
    std::memcpy(bytes.data(), symbols_.data(), strings);
    std::memcpy(bytes.data() + strings, strings_.data(), strings_.size());
    table_.addSymbols(SpanSource(bytes), {0, symbols_.size(), strings, strings_.size()});
    std::vector<Line> lines;
    for (const FunctionEntry& entry : table_.finish()) {
      const bool named = entry.name != FunctionEntry::kRedacted;
      lines.push_back(
          {entry.address, named ? std::string(table_.names() + entry.name, entry.nameSize) : "?"});
    }
    return lines;
  }

 private:
  FunctionTable table_{{0x1000, 0x2000}};
  std::vector<ElfW(Sym)> symbols_;
  std::string strings_ = std::string(1, '\0');
};

using Lines = std::vector<Line>;

TEST(FunctionTable, TakesFunctionsInsideTheCodeOnly) {
  EXPECT_EQ(Table()
                .add("data", 0x1100, 8, STB_GLOBAL, STT_OBJECT)
                .add("imported", 0x1200, 8, STB_GLOBAL, STT_FUNC, SHN_UNDEF)
                .add("absolute", 0x1300, 8, STB_GLOBAL, STT_FUNC, SHN_ABS)
                .add("below", 0xfff, 8)
                .add("behind", 0x2000, 8)
                .add("", 0x1400, 8)
                .add("chooser@@V_2", 0x1ff0, 0xffffffffffffffff, STB_GLOBAL, STT_GNU_IFUNC)
                .lines(),
            (Lines{{0x1ff0, "chooser"}}));
}

TEST(FunctionTable, PrefersTheGlobalNameAndTheLaterOne) {
  EXPECT_EQ(Table()
                .add("global", 0x1000, 16)
                .add("local", 0x1000, 0x1000, STB_LOCAL)
                .add("weak", 0x1000, 16, STB_WEAK)
                .lines(),
            (Lines{{0x1000, "global"}}));
  EXPECT_EQ(Table().add("one", 0x1000, 0x1000, STB_WEAK).add("two", 0x1000, 16, STB_WEAK).lines(),
            (Lines{{0x1000, "two"}}));
}

TEST(FunctionTable, SpaceWithoutASymbolHasNoName) {
  EXPECT_EQ(Table().add("f", 0x1000, 0x31).add("padded", 0x1040, 0x40).add("g", 0x1100, 0xf00).lines(),
            (Lines{{0x1000, "f"}, {0x1040, "padded"}, {0x1080, "?"}, {0x1100, "g"}}));
  EXPECT_EQ(Table().add("last", 0x1500, 0x100).lines(), (Lines{{0x1500, "last"}, {0x1600, "?"}}));
}

TEST(FunctionTable, FunctionsKnownByTheirStartBoundTheOthers) {
  EXPECT_EQ(Table()
                .start(0x1080)
                .start(0x1010)
                .start(0x1020)  // inside f
                .start(0x1048)
                .start(0x1200)
                .start(0x1210)
                .start(0x2000)
                .add("f", 0x1018, 0x28)
                .add("unsized", 0x1100, 0)
                .lines(),
            (Lines{{0x1010, "?"},
                   {0x1018, "f"},
                   {0x1048, "?"},  // 8 bytes of padding, then a function
                   {0x1080, "?"},
                   {0x1100, "unsized"},
                   {0x1200, "?"},
                   {0x1210, "?"}}));
}

TEST(FunctionTable, NestedFunctionsAndLabels) {
  EXPECT_EQ(Table().add("outer", 0x1000, 0x1000).add("label", 0x1040, 0).add("inner", 0x1100, 0x20).lines(),
            (Lines{{0x1000, "outer"}, {0x1100, "inner"}, {0x1120, "?"}}));
}

TEST(FunctionTable, NamesEndWithTheirTable) {
  EXPECT_EQ(Table().add("f", 0x1000, 0x800).add("cut", 0x1800, 0x800).cutLastName().lines(),
            (Lines{{0x1000, "f"}, {0x1800, "cut"}}));
}

}  // namespace
}  // namespace qbv::linux_backend
