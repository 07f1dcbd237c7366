#include <algorithm>
#include <cstring>

#include "vitalscope/platform/linux/elf_tables.h"

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kLargestNotes = 65536;

std::optional<ElfW(Ehdr)> fileHeader(const ByteSource& file) {
  ElfW(Ehdr) header{};
  if (!file.read(0, header)) return std::nullopt;
  const bool own = std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
                   header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_ident[EI_DATA] == ELFDATA2LSB &&
                   header.e_phentsize == sizeof(ElfW(Phdr));
  if (!own) return std::nullopt;
  return header;
}

BuildId fileBuildId(const ByteSource& file, const PageVector<ElfW(Phdr)>& headers) {
  for (const ElfW(Phdr) & header : headers) {
    if (header.p_type != PT_NOTE || header.p_filesz > kLargestNotes) continue;
    PageVector<std::uint8_t> notes;
    if (!file.append(header.p_offset, header.p_filesz, notes)) continue;
    const BuildId id = findBuildId(notes.span());
    if (id.size != 0) return id;
  }
  return {};
}

bool readSection(const ByteSource& file, const ElfW(Ehdr) & header, std::uint64_t index,
                 ElfW(Shdr) & section) {
  if (index >= header.e_shnum || header.e_shentsize != sizeof section) return false;
  return file.range().contains(header.e_shoff, index * sizeof section) &&
         file.read(header.e_shoff + index * sizeof section, section);
}

}  // namespace

bool isFileOf(const ByteSource& file, const ElfObject& object) {
  const std::optional<ElfW(Ehdr)> header = fileHeader(file);
  PageVector<ElfW(Phdr)> headers;
  if (!header || !file.append(header->e_phoff, header->e_phnum, headers)) return false;
  if (object.buildId.size != 0) return fileBuildId(file, headers) == object.buildId;
  return layoutHash(*header, headers.span()) == object.layout;
}

std::optional<SymbolTablePlace> fileSymbols(const ByteSource& file) {
  const std::optional<ElfW(Ehdr)> header = fileHeader(file);
  if (!header) return std::nullopt;
  ElfW(Shdr) symbols{};
  for (std::uint64_t i = 0; readSection(file, *header, i, symbols); ++i) {
    ElfW(Shdr) strings{};
    if (symbols.sh_type != SHT_SYMTAB || symbols.sh_entsize != sizeof(ElfW(Sym))) continue;
    if (!readSection(file, *header, symbols.sh_link, strings) || strings.sh_type != SHT_STRTAB) break;
    return SymbolTablePlace{symbols.sh_offset, symbols.sh_size / sizeof(ElfW(Sym)), strings.sh_offset,
                            strings.sh_size};
  }
  return std::nullopt;
}

}  // namespace qbv::linux_backend
