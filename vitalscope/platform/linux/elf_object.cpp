#include "vitalscope/platform/linux/elf_object.h"

#include <algorithm>
#include <cstring>

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kPage = 4096;

std::uint64_t mix(std::uint64_t hash, const void* bytes, std::size_t size) {
  const auto* next = static_cast<const char*>(bytes);
  for (; size >= 8; next += 8, size -= 8) {
    std::uint64_t word = 0;
    std::memcpy(&word, next, 8);
    hash = (hash ^ word) * 0x9e3779b97f4a7c15U;
    hash ^= hash >> 29;
  }
  return hash;
}

void widen(AddressRange& range, std::uint64_t start, std::uint64_t end) {
  if (range.end == 0) {
    range = {start, end};
  } else {
    range = {std::min(range.start, start), std::max(range.end, end)};
  }
}

void addData(ElfObject& object, std::uint64_t start, std::uint64_t end, bool relocationReadOnly) {
  if (start >= end || object.dataCount == object.data.size()) return;
  object.data[object.dataCount++] = {start, end - start, relocationReadOnly};
}

// The relocation-read-only part is a segment of its own.
void addWritable(ElfObject& object, std::uint64_t start, std::uint64_t end, AddressRange readOnly) {
  const std::uint64_t from = std::clamp(readOnly.start, start, end);
  const std::uint64_t to = std::clamp(readOnly.end, from, end);
  addData(object, start, from, false);
  addData(object, from, to, true);
  addData(object, to, end, false);
}

void readNotes(ElfObject& object, AddressRange notes) {
  if (object.buildId.size != 0 || !object.mapped.contains(notes.start, notes.end - notes.start)) return;
  object.buildId = findBuildId({reinterpret_cast<const std::uint8_t*>(notes.start), notes.end - notes.start});
}

}  // namespace

std::uint64_t layoutHash(const ElfW(Ehdr) & header, std::span<const ElfW(Phdr)> headers) {
  return mix(mix(headers.size(), &header, sizeof header), headers.data(), headers.size_bytes());
}

BuildId findBuildId(std::span<const std::uint8_t> notes) {
  constexpr std::uint8_t kName[4] = {'G', 'N', 'U', 0};
  while (notes.size() >= sizeof(ElfW(Nhdr))) {
    ElfW(Nhdr) note;
    std::memcpy(&note, notes.data(), sizeof note);
    notes = notes.subspan(sizeof note);
    const std::uint64_t name = (std::uint64_t{note.n_namesz} + 3) & ~std::uint64_t{3};
    const std::uint64_t size = (std::uint64_t{note.n_descsz} + 3) & ~std::uint64_t{3};
    if (name > notes.size() || note.n_descsz > notes.size() - name) break;
    if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof kName &&
        std::memcmp(notes.data(), kName, sizeof kName) == 0 && note.n_descsz > 0) {
      BuildId id;
      id.size = std::min<std::uint32_t>(note.n_descsz, static_cast<std::uint32_t>(id.bytes.size()));
      std::memcpy(id.bytes.data(), notes.data() + name, id.size);
      return id;
    }
    notes = notes.subspan(static_cast<std::size_t>(std::min<std::uint64_t>(name + size, notes.size())));
  }
  return {};
}

ElfObject readLoadedObject(const dl_phdr_info& info) {
  ElfObject object;
  object.slide = info.dlpi_addr;
  const std::span<const ElfW(Phdr)> headers(info.dlpi_phdr, info.dlpi_phnum);
  AddressRange readOnly;
  bool startsWithHeader = false;
  for (const ElfW(Phdr) & header : headers) {
    const AddressRange memory{object.slide + header.p_vaddr, object.slide + header.p_vaddr + header.p_memsz};
    if (header.p_type == PT_DYNAMIC) object.dynamic = memory;
    if (header.p_type == PT_GNU_EH_FRAME) object.frameHeader = memory;
    if (header.p_type == PT_GNU_RELRO) readOnly = {header.p_vaddr, header.p_vaddr + header.p_memsz};
    if (header.p_type != PT_LOAD) continue;
    widen(object.mapped, memory.start & ~(kPage - 1), memory.end);
    if ((header.p_flags & PF_X) != 0) widen(object.code, memory.start, memory.end);
    startsWithHeader = startsWithHeader || (header.p_offset == 0 && (header.p_flags & PF_R) != 0 &&
                                            memory.start == object.mapped.start);
  }
  for (const ElfW(Phdr) & header : headers) {
    const std::uint64_t end = header.p_vaddr + header.p_memsz;
    if (header.p_type == PT_LOAD && (header.p_flags & PF_W) != 0)
      addWritable(object, header.p_vaddr, end, readOnly);
    if (header.p_type == PT_NOTE) readNotes(object, {object.slide + header.p_vaddr, object.slide + end});
  }
  ElfW(Ehdr) none{};
  const auto* mapped = reinterpret_cast<const ElfW(Ehdr)*>(object.mapped.start);
  object.layout = layoutHash(startsWithHeader ? *mapped : none, headers);
  return object;
}

}  // namespace qbv::linux_backend
