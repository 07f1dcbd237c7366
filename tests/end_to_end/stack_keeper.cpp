// Counts allocations under their stacks in a private zone and a stack file until it is killed. One command a
// line on its standard input: keep STACKS, which answers "done keep STACKS". Argument: the file.
#include <array>
#include <cstdio>
#include <iostream>
#include <string>

#include "vitalscope/memory/QBRapidCRC64.h"
#include "vitalscope/memory/QBStacksHashmap.h"
#include "vitalscope/platform/platform.h"

namespace {

constexpr std::uint64_t kBuckets = 1000;
constexpr std::uint32_t kBytes = 4096;

void keep(QBStacksHashmap& table, std::uint64_t stacks) {
  for (std::uint64_t number = 1; number <= stacks; ++number) {
    const std::array<std::uint64_t, 4> frames = {0x401000 + number * 16, 0x402000, 0x403000, 0x404000};
    const base_stack_t event{4, frames.data(), kBytes, 0, 1};
    table.insertStackAndIncreaseCountIfExist(rapid_crc64(0, frames.data(), sizeof frames), &event);
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) return 2;
  qbv::MallocZone* const zone = qbv::platform().allocator.malloc_create_zone(0, 0);
  auto* const table = new QBStacksHashmap(kBuckets, zone, arguments[1], kBytes);
  std::string verb;
  for (std::uint64_t stacks = 0; std::cin >> verb >> stacks;) {
    keep(*table, stacks);
    std::printf("done keep %llu\n", static_cast<unsigned long long>(stacks));
    std::fflush(stdout);
  }
  return 0;
}
