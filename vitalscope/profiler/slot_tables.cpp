#include "vitalscope/profiler/slot_tables.h"

#include <algorithm>

namespace qbv {

namespace {

constexpr std::uint32_t kNoSymbol = INDIRECT_SYMBOL_LOCAL | INDIRECT_SYMBOL_ABS;
constexpr std::uint32_t kSectionType = 0xff;

template <typename T>
T valueAt(std::uint64_t address) {
  T value;
  std::memcpy(&value, reinterpret_cast<const void*>(address), sizeof value);
  return value;
}

bool marksNoSymbol(std::uint32_t entry) {
  return entry == INDIRECT_SYMBOL_LOCAL || entry == INDIRECT_SYMBOL_ABS || entry == kNoSymbol;
}

template <std::size_t Size>
bool isNamed(const char (&field)[Size], const char* name) {
  return std::strncmp(field, name, Size) == 0;
}

// A command as far as it is there; the rest is zero. Nothing when what is read of it is missing.
template <typename Command>
std::optional<Command> commandAt(std::uint64_t at, std::uint32_t size, std::size_t needed) {
  if (size < needed) return std::nullopt;
  Command command{};
  std::memcpy(&command, reinterpret_cast<const void*>(at), std::min<std::size_t>(size, sizeof command));
  return command;
}

}  // namespace

const char* BelievedSlotNames::at(std::uint64_t entry) const {
  if (marksNoSymbol(indirect_[entry])) return nullptr;
  const char* const name = strings_ + symbols_[indirect_[entry]].n_strx;
  return name[0] != '\0' && name[1] != '\0' ? name : nullptr;
}

SlotTables::SlotTables(Images& images, std::uint32_t index, const void* header, std::intptr_t slide)
    : images_(images), index_(index) {
  const auto start = reinterpret_cast<std::uint64_t>(header);
  if (!can(start, sizeof(mach_header_64))) return;
  walk(start + sizeof(mach_header_64), valueAt<mach_header_64>(start).ncmds);
  if (!linkedit_ || !symtab_ || !dysymtab_ || dysymtab_->nindirectsyms == 0) {
    sections_.clear();
    return;
  }
  const std::uint64_t base = static_cast<std::uint64_t>(slide) + linkedit_->vmaddr - linkedit_->fileoff;
  symbols_ = base + symtab_->symoff;
  strings_ = base + symtab_->stroff;
  indirect_ = base + dysymtab_->indirectsymoff;
  if (can(indirect_, std::uint64_t{dysymtab_->nindirectsyms} * sizeof(std::uint32_t)))
    safeIndirect_ = dysymtab_->nindirectsyms;
  if (can(symbols_, std::uint64_t{symtab_->nsyms} * sizeof(nlist_64))) safeSymbols_ = symtab_->nsyms;
  if (symtab_->strsize != 0 && can(strings_, symtab_->strsize) &&
      valueAt<char>(strings_ + symtab_->strsize - 1) == '\0')
    safeStrings_ = symtab_->strsize;
}

bool SlotTables::can(std::uint64_t address, std::uint64_t size) const {
  return images_.readable(index_, reinterpret_cast<const void*>(address), size);
}

void SlotTables::walk(std::uint64_t at, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i) {
    if (!can(at, sizeof(load_command))) return;
    const auto command = valueAt<load_command>(at);
    if (command.cmdsize < sizeof command || !can(at, command.cmdsize)) return;
    if (command.cmd == LC_SEGMENT_64) readSegment(at, command);
    if (command.cmd == LC_SYMTAB) {
      const auto found = commandAt<symtab_command>(at, command.cmdsize, offsetof(symtab_command, stroff) + 4);
      if (found) symtab_ = found;
    }
    if (command.cmd == LC_DYSYMTAB) {
      const auto found =
          commandAt<dysymtab_command>(at, command.cmdsize, offsetof(dysymtab_command, nindirectsyms) + 4);
      if (found) dysymtab_ = found;
    }
    at += command.cmdsize;
  }
}

void SlotTables::readSegment(std::uint64_t at, const load_command& command) {
  const auto segment = commandAt<segment_command_64>(at, command.cmdsize, sizeof(segment_command_64));
  if (!segment) return;
  if (isNamed(segment->segname, "__LINKEDIT")) linkedit_ = segment;
  if (!isNamed(segment->segname, "__DATA") && !isNamed(segment->segname, "__DATA_CONST")) return;
  std::uint64_t next = at + sizeof *segment;
  for (std::uint32_t i = 0; i < segment->nsects && can(next, sizeof(section_64)); ++i) {
    const auto section = valueAt<section_64>(next);
    const std::uint32_t type = section.flags & kSectionType;
    if (type == S_LAZY_SYMBOL_POINTERS || type == S_NON_LAZY_SYMBOL_POINTERS) sections_.push_back(section);
    next += sizeof section;
  }
}

bool SlotTables::nameEnds(std::uint64_t name) const {
  while (can(name, 1)) {
    if (valueAt<char>(name++) == '\0') return true;
  }
  return false;
}

const char* SlotTables::at(std::uint64_t entry) const {
  const std::uint64_t place = indirect_ + entry * sizeof(std::uint32_t);
  if (entry >= safeIndirect_ && !can(place, sizeof(std::uint32_t))) return nullptr;
  const auto symbol = valueAt<std::uint32_t>(place);
  if (marksNoSymbol(symbol)) return nullptr;
  const std::uint64_t described = symbols_ + std::uint64_t{symbol} * sizeof(nlist_64);
  if (symbol >= safeSymbols_ && !can(described, sizeof(nlist_64))) return nullptr;
  const std::uint64_t offset = valueAt<std::uint32_t>(described + offsetof(nlist_64, n_strx));
  const std::uint64_t name = strings_ + offset;
  if (offset >= safeStrings_ && !nameEnds(name)) return nullptr;
  const auto* const text = reinterpret_cast<const char*>(name);
  return text[0] != '\0' && text[1] != '\0' ? text : nullptr;
}

}  // namespace qbv
