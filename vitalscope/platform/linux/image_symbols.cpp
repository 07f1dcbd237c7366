#include "vitalscope/platform/linux/image_symbols.h"

#include <sys/mman.h>

#include <cstring>
#include <limits>

#include "vitalscope/platform/linux/function_table.h"
#include "vitalscope/platform/linux/image_description.h"

namespace qbv::linux_backend {

namespace {

constexpr char kRedacted[] = "<redacted>";
constexpr std::uint32_t kRedactedAt = 1;  // position in the string table, behind the empty name
constexpr std::uint8_t kDefinedInSection = 0x0e;

void collect(FunctionTable& table, const ElfObject& object, const char* file) {
  const MemorySource memory(object.mapped);
  if (const auto place = dynamicSymbols(memory, object)) table.addSymbols(memory, *place);
  functionStarts(memory, object, table.starts());
  if (file == nullptr) return;
  const FileSource source(file);
  if (!isFileOf(source, object)) return;
  if (const auto place = fileSymbols(source)) table.addSymbols(source, *place);
}

// Names stand with one underscore in front.
std::uint64_t stringsSize(const PageVector<FunctionEntry>& entries) {
  std::uint64_t size = kRedactedAt + 1 + sizeof kRedacted;
  for (const FunctionEntry& entry : entries)
    size += entry.name != FunctionEntry::kRedacted ? entry.nameSize + 2U : 0U;
  return size;
}

void writeName(char* to, const char* name, std::size_t size) {
  to[0] = '_';
  std::memcpy(to + 1, name, size);
  to[1 + size] = '\0';
}

void writeTables(std::byte* block, const DescribedSymbols& place, const PageVector<FunctionEntry>& entries,
                 const char* names) {
  auto* symbol = reinterpret_cast<nlist_64*>(block + place.symbols);
  auto* const strings = reinterpret_cast<char*>(block + place.strings);
  writeName(strings + kRedactedAt, kRedacted, sizeof kRedacted - 1);
  std::uint32_t next = kRedactedAt + 1 + sizeof kRedacted;
  for (const FunctionEntry& entry : entries) {
    const bool named = entry.name != FunctionEntry::kRedacted;
    *symbol++ = {named ? next : kRedactedAt, kDefinedInSection, 1, 0, entry.address};
    if (!named) continue;
    writeName(strings + next, names + entry.name, entry.nameSize);
    next += entry.nameSize + 2;
  }
}

}  // namespace

std::span<const std::byte> buildImageSymbols(const ElfObject& object, bool executable, const char* file) {
  FunctionTable table({object.code.start - object.slide, object.code.end - object.slide});
  collect(table, object, file);
  const PageVector<FunctionEntry>& entries = table.finish();
  DescribedSymbols place;
  const Describe what{&place};
  const std::uint64_t symbols = (descriptionSize(object, what) + 15) & ~std::uint64_t{15};
  const std::uint64_t strings = symbols + entries.size() * sizeof(nlist_64);
  const std::uint64_t size = strings + stringsSize(entries);
  if (size > std::numeric_limits<std::uint32_t>::max()) return {};
  auto* const block = static_cast<std::byte*>(takePages(size));
  if (block == nullptr) return {};
  place = {static_cast<std::uint32_t>(symbols), static_cast<std::uint32_t>(entries.size()),
           static_cast<std::uint32_t>(strings), static_cast<std::uint32_t>(size - strings)};
  writeTables(block, place, entries, table.names());
  writeDescription(object, executable, {block, size}, what);
  mprotect(block, size, PROT_READ);
  return {block, size};
}

}  // namespace qbv::linux_backend
