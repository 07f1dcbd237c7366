#include "tools/leaks/leak_report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <map>

#include "tools/leaks/stack_store.h"

namespace leaks {

namespace {

constexpr std::size_t kMostGroups = 60;
constexpr std::size_t kMostStacks = 20;
constexpr std::size_t kMostBlocks = 100;
constexpr std::size_t kShownBytes = 32;
constexpr std::size_t kBytesInLine = 16;

[[gnu::format(printf, 2, 3)]] void append(std::string& text, const char* format, ...) {
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (length > 0) text.append(line, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof line - 1));
}

// "libc.so.6+0x1238"; "" for an address in no file's mapping. Counted from where the file's consecutive
// mappings begin: an image's load address.
std::string placeOf(const Memory& memory, Address address) {
  const Mapping* const mapping = memory.mappingOf(address);
  if (mapping == nullptr || mapping->anonymous || mapping->name.empty()) return "";
  const Mapping* first = mapping;
  while (first != memory.snapshot().mappings.data() && first[-1].name == first->name &&
         first[-1].range.end == first->range.begin)
    --first;
  char offset[32];
  std::snprintf(offset, sizeof offset, "+0x%" PRIx64, address - first->range.begin + first->fileOffset);
  return mapping->name.substr(mapping->name.rfind('/') + 1) + offset;
}

// Objects with virtual functions begin with the address of their class's table, which tells their kind. 0
// when the first word leads into no file's mapping.
Address kindOf(const Memory& memory, const LeakedBlock& block) {
  const Address first = memory.word(block.address).value_or(0);
  return first % 8 == 0 && !placeOf(memory, first).empty() ? first : 0;
}

// "gallery+0x4d48  vtable for Thumbnail". `called`: where its function or variable is looked for; the address
// itself, except for a return address.
std::string described(const Memory& memory, const LeakReport& report, Address address, Address called) {
  const std::string place = placeOf(memory, address);
  const std::string name = place.empty() ? "" : report.nameOf(called);
  return place + (name.empty() ? "" : "  ") + name;
}

void appendHeader(std::string& text, const LeakReport& report, const StackStore& stacks) {
  const HeapTotals& totals = report.analysis.totals;
  append(text, "Process:         %s [%u]\n", report.process.c_str(), report.processId);
  text += "Path:            " + report.executable + "\n";
  append(text, "Date:            %s\n", report.date.c_str());
  append(text, "C library:       %s\n", report.library.c_str());
  append(text, "Method:          blocks that no pointer leads to, in a copy of the process's memory; %s\n",
         stacks.isThere() ? "allocation stacks from the monitor's record"
                          : "without the stacks that allocated them");
  append(text, "Heap:            %zu blocks in use, %" PRIu64 " bytes, %zu arena%s, %zu mapped blocks\n",
         totals.blocks, totals.bytes, totals.arenas, totals.arenas == 1 ? "" : "s", totals.mappedBlocks);
  append(text, "Stopped:        ");
  for (const double milliseconds : report.stoppedMilliseconds) append(text, " %.1f ms", milliseconds);
  text += report.stoppedMilliseconds.size() > 1 ? "; listed is what every pass found\n" : "\n";
  if (!report.note.empty()) text += "Note:            " + report.note + "\n";
}

struct Group {
  Address size = 0;
  Address kind = 0;
  std::size_t count = 0;
  std::size_t roots = 0;
};

std::vector<Group> groupsOf(const Memory& memory, const std::vector<LeakedBlock>& leaked) {
  std::map<std::pair<Address, Address>, Group> byKind;
  for (const LeakedBlock& block : leaked) {
    const Address kind = kindOf(memory, block);
    Group& group = byKind[{block.size, kind}];
    group.size = block.size;
    group.kind = kind;
    ++group.count;
    group.roots += block.isRoot ? 1 : 0;
  }
  std::vector<Group> groups;
  groups.reserve(byKind.size());
  for (const auto& [key, group] : byKind) groups.push_back(group);
  std::stable_sort(groups.begin(), groups.end(),
                   [](const Group& a, const Group& b) { return a.count * a.size > b.count * b.size; });
  return groups;
}

void appendGroups(std::string& text, const Memory& memory, const LeakReport& report) {
  const std::vector<Group> groups = groupsOf(memory, report.analysis.leaked);
  text += "\nGroups by size and kind, most bytes first:\n";
  append(text, "%10s %14s %12s %10s  %s\n", "blocks", "bytes", "block size", "roots", "first word");
  for (std::size_t i = 0; i < groups.size() && i < kMostGroups; ++i) {
    const Group& group = groups[i];
    append(text, "%10zu %14" PRIu64 " %12" PRIu64 " %10zu  ", group.count, group.count * group.size,
           group.size, group.roots);
    text += described(memory, report, group.kind, group.kind) + "\n";
  }
  if (groups.size() > kMostGroups) append(text, "... and %zu more groups\n", groups.size() - kMostGroups);
}

void appendStack(std::string& text, const Memory& memory, const LeakReport& report, const StackStore& stacks,
                 std::uint64_t id) {
  const std::vector<Address> frames = stacks.frames(id);
  if (frames.empty()) text += "    too little is alive of it to be in the stack file\n";
  for (std::size_t i = 0; i < frames.size(); ++i) {
    append(text, "    %-3zu 0x%016" PRIx64 "  ", i, frames[i]);
    text += described(memory, report, frames[i], frames[i] - 1) + "\n";
  }
}

void appendStacks(std::string& text, const Memory& memory, const LeakReport& report,
                  const StackStore& stacks) {
  struct Sum {
    std::uint64_t id = 0;
    std::size_t blocks = 0;
    Address bytes = 0;
  };
  std::map<std::uint64_t, Sum> byId;
  for (const LeakedBlock& block : report.analysis.leaked)
    if (const auto id = stacks.stackOf(block.address, block.size)) {
      Sum& sum = byId[*id];
      sum = {*id, sum.blocks + 1, sum.bytes + block.size};
    }
  if (byId.empty()) return;
  std::vector<Sum> sums;
  sums.reserve(byId.size());
  for (const auto& [id, sum] : byId) sums.push_back(sum);
  std::stable_sort(sums.begin(), sums.end(), [](const Sum& a, const Sum& b) { return a.bytes > b.bytes; });
  text += "\nGroups by allocation stack, most bytes first, for the blocks that were recorded:\n";
  for (std::size_t i = 0; i < sums.size() && i < kMostStacks; ++i) {
    append(text, "stack 0x%" PRIx64 ": %zu blocks, %" PRIu64 " bytes\n", sums[i].id, sums[i].blocks,
           sums[i].bytes);
    appendStack(text, memory, report, stacks, sums[i].id);
  }
  if (sums.size() > kMostStacks) append(text, "... and %zu more stacks\n", sums.size() - kMostStacks);
}

void appendContent(std::string& text, const Memory& memory, const LeakedBlock& block) {
  const auto bytes =
      memory.bytes(block.address, static_cast<std::size_t>(std::min<Address>(block.size, kShownBytes)));
  for (std::size_t at = 0; at < bytes.size(); at += kBytesInLine) {
    const std::size_t end = std::min(bytes.size(), at + kBytesInLine);
    append(text, "    %04zx ", at);
    for (std::size_t i = at; i < at + kBytesInLine; ++i) {
      if (i < end)
        append(text, " %02x", std::to_integer<unsigned>(bytes[i]));
      else
        text += "   ";
    }
    text += "  |";
    for (std::size_t i = at; i < end; ++i) {
      const auto byte = std::to_integer<unsigned char>(bytes[i]);
      text += byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '.';
    }
    text += "|\n";
  }
}

void appendBlocks(std::string& text, const Memory& memory, const LeakReport& report) {
  const bool isWhole = report.isWhole;
  std::vector<LeakedBlock> leaked = report.analysis.leaked;
  if (!isWhole) std::erase_if(leaked, [](const LeakedBlock& block) { return !block.isRoot; });
  const std::size_t most = isWhole ? leaked.size() : kMostBlocks;
  std::stable_sort(leaked.begin(), leaked.end(), [](const LeakedBlock& a, const LeakedBlock& b) {
    return a.size + a.containedBytes > b.size + b.containedBytes;
  });
  text += isWhole ? "\nAll blocks, those that hold most first:\n"
                  : "\nRoots, those that hold most first; a block that only other leaked ones point to is "
                    "counted with its root:\n";
  for (std::size_t i = 0; i < leaked.size() && i < most; ++i) {
    const LeakedBlock& block = leaked[i];
    append(text, "0x%" PRIx64 "  %" PRIu64 " bytes", block.address, block.size);
    if (block.contained > 0)
      append(text, ", holds %zu more block%s of %" PRIu64 " bytes", block.contained,
             block.contained == 1 ? "" : "s", block.containedBytes);
    const Address first = kindOf(memory, block);
    const std::string kind = described(memory, report, first, first);
    text += (kind.empty() ? "" : "  " + kind) + "\n";
    appendContent(text, memory, block);
  }
  if (leaked.size() > most) append(text, "... and %zu more roots\n", leaked.size() - most);
}

}  // namespace

std::string renderLeaks(const LeakReport& report, const Snapshot& snapshot) {
  const Memory memory(snapshot);
  const StackStore stacks(memory);
  const auto& leaked = report.analysis.leaked;
  std::string text;
  appendHeader(text, report, stacks);
  Address bytes = 0;
  for (const LeakedBlock& block : leaked) bytes += block.size;
  append(text, "\n%zu leaks for %" PRIu64 " total leaked bytes.\n", leaked.size(), bytes);
  if (leaked.empty()) return text;
  appendGroups(text, memory, report);
  appendStacks(text, memory, report, stacks);
  appendBlocks(text, memory, report);
  return text;
}

}  // namespace leaks
