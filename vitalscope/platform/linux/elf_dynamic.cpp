#include <algorithm>

#include "vitalscope/platform/linux/elf_tables.h"

namespace qbv::linux_backend {

namespace {

// The loader relocates the pointers of most objects in place, but not those of objects whose dynamic section
// is read-only (the vDSO): what does not point into the object still needs the slide.
std::uint64_t pointer(const ElfObject& object, std::uint64_t value) {
  return object.mapped.contains(value) ? value : value + object.slide;
}

// The chain of the last bucket ends with the last symbol; its last entry has the lowest bit set.
std::uint64_t endOfChain(const ByteSource& memory, std::uint64_t chains, std::uint64_t offset,
                         std::uint64_t index) {
  if (index < offset) return offset;
  std::uint32_t link = 0;
  while (memory.read(chains + (index - offset) * sizeof link, link)) {
    ++index;
    if ((link & 1U) != 0) return index;
  }
  return 0;
}

std::uint64_t countByGnuHash(const ByteSource& memory, std::uint64_t table) {
  struct {
    std::uint32_t buckets, offset, bloom, shift;
  } head{};
  PageVector<std::uint32_t> buckets;
  if (!memory.read(table, head)) return 0;
  const std::uint64_t firstBucket = table + sizeof head + std::uint64_t{head.bloom} * sizeof(ElfW(Addr));
  if (!memory.append(firstBucket, head.buckets, buckets) || buckets.size() == 0) return 0;
  const std::uint64_t chains = firstBucket + std::uint64_t{head.buckets} * sizeof(std::uint32_t);
  return endOfChain(memory, chains, head.offset, *std::max_element(buckets.begin(), buckets.end()));
}

std::uint64_t symbolCount(const ByteSource& memory, const DynamicFacts& facts) {
  struct {
    std::uint32_t buckets, chains;
  } head{};
  if (facts.hash != 0 && memory.read(facts.hash, head)) return head.chains;
  return facts.gnuHash != 0 ? countByGnuHash(memory, facts.gnuHash) : 0;
}

}  // namespace

DynamicFacts dynamicFacts(const ByteSource& memory, const ElfObject& object) {
  DynamicFacts facts;
  ElfW(Dyn) entry{};
  for (std::uint64_t at = object.dynamic.start; at < object.dynamic.end; at += sizeof entry) {
    if (!memory.read(at, entry) || entry.d_tag == DT_NULL) break;
    const std::uint64_t value = entry.d_un.d_val;
    if (entry.d_tag == DT_SYMTAB) facts.symbols = pointer(object, value);
    if (entry.d_tag == DT_STRTAB) facts.strings = pointer(object, value);
    if (entry.d_tag == DT_STRSZ) facts.stringsSize = value;
    if (entry.d_tag == DT_HASH) facts.hash = pointer(object, value);
    if (entry.d_tag == DT_GNU_HASH) facts.gnuHash = pointer(object, value);
    if (entry.d_tag == DT_VERSYM) facts.versions = pointer(object, value);
    if (entry.d_tag == DT_RELA) facts.relocations = pointer(object, value);
    if (entry.d_tag == DT_RELASZ) facts.relocationsSize = value;
    if (entry.d_tag == DT_RELACOUNT) facts.relativeCount = value;
    if (entry.d_tag == DT_JMPREL) facts.jumps = pointer(object, value);
    if (entry.d_tag == DT_PLTRELSZ) facts.jumpsSize = value;
    if (entry.d_tag == DT_PLTGOT) facts.jumpTable = pointer(object, value);
  }
  return facts;
}

std::optional<SymbolTablePlace> dynamicSymbols(const ByteSource& memory, const ElfObject& object) {
  const DynamicFacts facts = dynamicFacts(memory, object);
  const std::uint64_t count = symbolCount(memory, facts);
  if (facts.symbols == 0 || facts.strings == 0 || count == 0) return std::nullopt;
  return SymbolTablePlace{facts.symbols, count, facts.strings, facts.stringsSize};
}

void functionStarts(const ByteSource& memory, const ElfObject& object, PageVector<std::uint64_t>& starts) {
  struct {
    std::uint8_t version, framePointer, countEncoding, tableEncoding;
    std::int32_t frame;
    std::uint32_t count;
  } head{};
  struct Entry {
    std::int32_t start, description;
  };
  // The one form that linkers write: 4-byte count, 4-byte signed offsets from the header itself.
  const bool usual = memory.read(object.frameHeader.start, head) && head.version == 1 &&
                     head.framePointer == 0x1b && head.countEncoding == 0x03 && head.tableEncoding == 0x3b;
  PageVector<Entry> entries;
  if (!usual || !memory.append(object.frameHeader.start + sizeof head, head.count, entries)) return;
  const std::uint64_t linked = object.frameHeader.start - object.slide;
  for (const Entry& entry : entries) {
    if (!starts.push(linked + static_cast<std::uint64_t>(std::int64_t{entry.start}))) return;
  }
}

}  // namespace qbv::linux_backend
