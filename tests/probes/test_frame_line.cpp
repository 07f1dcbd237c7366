#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

#include "vitalscope/probes/QBVitalscopeBacktrace.h"

namespace qbv {
namespace {

using std::string;

template <typename... Arguments>
string printed(const char* format, Arguments... arguments) {
  string text(static_cast<std::size_t>(std::snprintf(nullptr, 0, format, arguments...)), '\0');
  std::snprintf(text.data(), text.size() + 1, format, arguments...);
  return text;
}

TEST(FrameLine, ShowsImageAddressSymbolAndOffset) {
  const qbv_symbol_record record{"/opt/Quib/bin/quibapp", 0x100000000, "main", 0x100000f00};
  EXPECT_EQ(qbv_logBacktraceEntry(0, 0x100000f14, record),
            "0   quibapp                         0x0000000100000f14 main + 20\n");
}

TEST(FrameLine, WithoutASymbolTheLoadAddressStandsForIt) {
  qbv_symbol_record record{"libquib.so", 0x2000, nullptr, 0x2010};
  EXPECT_EQ(qbv_logBacktraceEntry(12, 0x2014, record),
            "12  libquib.so                      0x0000000000002014 0x2000 + 20\n");
  record.symbol_name = "<redacted>";
  EXPECT_EQ(qbv_logBacktraceEntry(12, 0x2014, record),
            "12  libquib.so                      0x0000000000002014 0x2000 + 20\n");
  EXPECT_EQ(qbv_logBacktraceEntry(3, 0x1234, {}),
            "3   0x0000000000000000              0x0000000000001234 0x0 + 4660\n");
}

TEST(FrameLine, ColumnsAreThoseOfFormattedPrinting) {
  std::mt19937_64 random(1);
  for (int round = 0; round < 5000; ++round) {
    const int index = round - 20;
    const std::uint64_t address = random() >> (random() % 64);
    const std::uint64_t load = random() >> (random() % 64);
    const std::uint64_t start = random() >> (random() % 64);
    const string name(random() % 40, 'i');
    const string path = "/a b/" + name;
    const string symbol(random() % 200, 's');
    const string left = printed("%-4d%-31s 0x%016lx", index, name.c_str(), address);
    EXPECT_EQ(qbv_logBacktraceEntry(index, address, {path.c_str(), load, symbol.c_str(), start}),
              left + printed(" %s + %lu\n", symbol.c_str(), address - start));
    EXPECT_EQ(qbv_logBacktraceEntry(index, address, {path.c_str(), load, nullptr, start}),
              left + printed(" 0x%lx + %lu\n", load, address - load));
    EXPECT_EQ(qbv_logBacktraceEntry(index, address, {nullptr, load, symbol.c_str(), start}),
              printed("%-4d0x%016lx              0x%016lx %s + %lu\n", index, load, address, symbol.c_str(),
                      address - start));
  }
}

TEST(FrameLine, AnOffsetBeforeTheSymbolWrapsAround) {
  const qbv_symbol_record record{"/l", 0, "later", 0x11};
  EXPECT_EQ(qbv_logBacktraceEntry(1, 0x10, record),
            "1   l                               0x0000000000000010 later + 18446744073709551615\n");
}

}  // namespace
}  // namespace qbv
