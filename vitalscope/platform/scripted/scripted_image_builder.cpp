#include "vitalscope/platform/scripted/scripted_image_builder.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace qbv {

namespace {

constexpr std::align_val_t kAlignment{16};
constexpr std::size_t kTableAlignment = 8;
constexpr std::size_t kWord = 8;

void append(std::vector<std::byte>& bytes, const void* data, std::size_t size) {
  const auto* const begin = static_cast<const std::byte*>(data);
  bytes.insert(bytes.end(), begin, begin + size);
}

template <class T>
std::vector<std::byte> bytesOf(const T& value) {
  std::vector<std::byte> bytes;
  append(bytes, &value, sizeof value);
  return bytes;
}

template <class T>
void patch(std::span<std::byte> bytes, std::size_t offset, const T& value) {
  if (offset + sizeof value <= bytes.size()) std::memcpy(bytes.data() + offset, &value, sizeof value);
}

template <class Segment>
Segment segmentNamed(std::uint32_t cmd, const std::string& name) {
  Segment segment{};
  segment.cmd = cmd;
  segment.cmdsize = sizeof segment;
  std::memcpy(segment.segname, name.data(), std::min(name.size(), sizeof segment.segname));
  return segment;
}

void align(std::vector<std::byte>& image) {
  image.resize((image.size() + kTableAlignment - 1) / kTableAlignment * kTableAlignment);
}

// Puts the entries and then the strings behind the image's bytes and tells the command where.
void appendTable(std::vector<std::byte>& image, const std::vector<ScriptedSymbol>& symbols,
                 symtab_command& command) {
  align(image);
  std::string strings(1, '\0');
  command.symoff = static_cast<std::uint32_t>(image.size());
  command.nsyms = static_cast<std::uint32_t>(symbols.size());
  for (const ScriptedSymbol& symbol : symbols) {
    nlist_64 entry{};
    entry.n_strx = symbol.nameOffset.value_or(static_cast<std::uint32_t>(strings.size()));
    entry.n_type = symbol.type;
    entry.n_sect = symbol.sect;
    entry.n_desc = symbol.desc;
    entry.n_value = symbol.value;
    append(image, &entry, sizeof entry);
    strings.append(symbol.name).push_back('\0');
  }
  command.stroff = static_cast<std::uint32_t>(image.size());
  command.strsize = static_cast<std::uint32_t>(strings.size());
  append(image, strings.data(), strings.size());
}

}  // namespace

ScriptedImage::ScriptedImage(std::vector<std::byte> bytes, std::intptr_t slide)
    : bytes_(static_cast<std::byte*>(::operator new[](bytes.size(), kAlignment))),
      size_(bytes.size()),
      slide_(slide) {
  std::ranges::copy(bytes, bytes_.get());
}

void ScriptedImage::Free::operator()(std::byte* bytes) const noexcept {
  ::operator delete[](bytes, kAlignment);
}

std::uint64_t ScriptedImage::slot(std::size_t number) const {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes_.get() + slots_.at(number), sizeof value);
  return value;
}

bool ScriptedImage::holds(const void* address, std::size_t size) const noexcept {
  const auto begin = reinterpret_cast<std::uintptr_t>(bytes_.get());
  const auto wanted = reinterpret_cast<std::uintptr_t>(address);
  return wanted >= begin && wanted - begin <= size_ && size <= size_ - (wanted - begin);
}

ScriptedImageBuilder::ScriptedImageBuilder(Width width)
    : width_(width), magic_(width == Width::bits64 ? MH_MAGIC_64 : MH_MAGIC) {}

std::size_t ScriptedImageBuilder::headerSize() const noexcept {
  return width_ == Width::bits64 ? sizeof(mach_header_64) : sizeof(mach_header_64) - sizeof(std::uint32_t);
}

ScriptedImageBuilder& ScriptedImageBuilder::magic(std::uint32_t value) {
  magic_ = value;
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::cpu(std::uint32_t type, std::uint32_t subtype) {
  cpuType_ = type;
  cpuSubtype_ = subtype;
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::slide(std::intptr_t value) {
  slide_ = value;
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::segment(const std::string& name, std::uint64_t vmaddr,
                                                    std::uint64_t vmsize, std::uint64_t fileoff) {
  if (width_ == Width::bits64) return segment64(name, vmaddr, vmsize, fileoff);
  return segment32(name, static_cast<std::uint32_t>(vmaddr), static_cast<std::uint32_t>(vmsize),
                   static_cast<std::uint32_t>(fileoff));
}

ScriptedImageBuilder& ScriptedImageBuilder::segment32(const std::string& name, std::uint32_t vmaddr,
                                                      std::uint32_t vmsize, std::uint32_t fileoff) {
  auto segment = segmentNamed<segment_command>(LC_SEGMENT, name);
  segment.vmaddr = vmaddr;
  segment.vmsize = segment.filesize = vmsize;
  segment.fileoff = fileoff;
  commands_.push_back({bytesOf(segment), {}, false});
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::segment64(const std::string& name, std::uint64_t vmaddr,
                                                      std::uint64_t vmsize, std::uint64_t fileoff) {
  auto segment = segmentNamed<segment_command_64>(LC_SEGMENT_64, name);
  segment.vmaddr = vmaddr;
  segment.vmsize = segment.filesize = vmsize;
  segment.fileoff = fileoff;
  commands_.push_back({bytesOf(segment), {}, false});
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::linkedit(std::uint64_t fileoff) {
  segment64("__LINKEDIT", 0, 0x1000, fileoff);
  commands_.back().fixLinkedit = true;
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::linkeditAt(std::uint64_t vmaddr, std::uint64_t fileoff) {
  linkeditBase_ = vmaddr - fileoff;
  return segment("__LINKEDIT", vmaddr, 0x1000, fileoff);
}

ScriptedImageBuilder& ScriptedImageBuilder::symbols(std::vector<ScriptedSymbol> symbols) {
  rawSymtab(0, 0, 0, 0);
  commands_.back().table = tables_.size();
  tables_.push_back(std::move(symbols));
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::rawSymtab(std::uint32_t symoff, std::uint32_t nsyms,
                                                      std::uint32_t stroff, std::uint32_t strsize) {
  commands_.push_back(
      {bytesOf(symtab_command{LC_SYMTAB, sizeof(symtab_command), symoff, nsyms, stroff, strsize}),
       {},
       false});
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::slots(const std::string& segment,
                                                  std::vector<ScriptedSlotSection> sections) {
  auto command = segmentNamed<segment_command_64>(LC_SEGMENT_64, segment);
  command.nsects = static_cast<std::uint32_t>(sections.size());
  command.cmdsize += static_cast<std::uint32_t>(sections.size() * sizeof(section_64));
  Command added{bytesOf(command), {}, false};
  for (const ScriptedSlotSection& one : sections) {
    section_64 section{};
    const std::string name = one.segname.value_or(segment);
    std::memcpy(section.segname, name.data(), std::min(name.size(), sizeof section.segname));
    section.size = one.size.value_or(one.slots.size() * kWord);
    section.flags = one.type;
    append(added.bytes, &section, sizeof section);
  }
  added.slots = slotSections_.size();
  commands_.push_back(std::move(added));
  slotSections_.push_back(std::move(sections));
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::indirectSymbols(std::optional<std::uint32_t> count) {
  dysymtab_command command{};
  command.cmd = LC_DYSYMTAB;
  command.cmdsize = sizeof command;
  Command added{bytesOf(command), {}, false};
  added.indirect = true;
  added.indirectCount = count;
  commands_.push_back(std::move(added));
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::uuid(const std::array<std::uint8_t, 16>& bytes) {
  return command(LC_UUID, std::as_bytes(std::span(bytes)));
}

ScriptedImageBuilder& ScriptedImageBuilder::sortedSymbols() {
  return command(LC_QBV_SORTED_SYMTAB);
}

ScriptedImageBuilder& ScriptedImageBuilder::command(std::uint32_t cmd, std::span<const std::byte> payload,
                                                    std::optional<std::uint32_t> cmdsize) {
  const auto trueSize = static_cast<std::uint32_t>(sizeof(load_command) + payload.size());
  Command added{bytesOf(load_command{cmd, cmdsize.value_or(trueSize)}), {}, false};
  append(added.bytes, payload.data(), payload.size());
  commands_.push_back(std::move(added));
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::data(std::span<const std::byte> bytes) {
  append(data_, bytes.data(), bytes.size());
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::commandCount(std::uint32_t ncmds) {
  ncmds_ = ncmds;
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::commandBytes(std::uint32_t sizeofcmds) {
  sizeofcmds_ = sizeofcmds;
  return *this;
}

ScriptedImageBuilder& ScriptedImageBuilder::truncate(std::size_t size) {
  truncated_ = size;
  return *this;
}

std::vector<std::byte> ScriptedImageBuilder::layOut(std::vector<std::size_t>& slotOffsets) const {
  mach_header_64 header{};
  header.magic = magic_;
  header.cputype = cpuType_;
  header.cpusubtype = cpuSubtype_;
  header.filetype = 6;  // a dynamic library
  std::vector<std::byte> image(headerSize());
  for (const Command& command : commands_) append(image, command.bytes.data(), command.bytes.size());
  header.ncmds = ncmds_.value_or(static_cast<std::uint32_t>(commands_.size()));
  header.sizeofcmds = sizeofcmds_.value_or(static_cast<std::uint32_t>(image.size() - headerSize()));
  std::memcpy(image.data(), &header, headerSize());

  std::size_t offset = headerSize();
  for (const Command& command : commands_) {
    if (command.table) {
      symtab_command symtab{};
      std::memcpy(&symtab, command.bytes.data(), sizeof symtab);
      appendTable(image, tables_[*command.table], symtab);
      patch(image, offset, symtab);
    }
    offset += command.bytes.size();
  }
  // The words of the slots, each section's address being its offset for now; then their indirect symbols.
  std::vector<std::uint32_t> indirect;
  offset = headerSize();
  for (const Command& command : commands_) {
    std::size_t record = offset + sizeof(segment_command_64);
    for (const ScriptedSlotSection& section :
         command.slots ? slotSections_[*command.slots] : std::vector<ScriptedSlotSection>()) {
      align(image);
      patch(image, record + offsetof(section_64, addr), std::uint64_t{image.size()});
      patch(image, record + offsetof(section_64, reserved1),
            section.firstEntry.value_or(static_cast<std::uint32_t>(indirect.size())));
      for (const ScriptedSlot& slot : section.slots) {
        slotOffsets.push_back(image.size());
        append(image, &slot.value, sizeof slot.value);
        indirect.push_back(slot.symbol);
      }
      record += sizeof(section_64);
    }
    offset += command.bytes.size();
  }
  align(image);
  offset = headerSize();
  for (const Command& command : commands_) {
    if (command.indirect) {
      patch(image, offset + offsetof(dysymtab_command, indirectsymoff),
            static_cast<std::uint32_t>(image.size()));
      patch(image, offset + offsetof(dysymtab_command, nindirectsyms),
            command.indirectCount.value_or(static_cast<std::uint32_t>(indirect.size())));
    }
    offset += command.bytes.size();
  }
  append(image, indirect.data(), indirect.size() * sizeof(std::uint32_t));
  image.insert(image.end(), data_.begin(), data_.end());
  if (truncated_ && *truncated_ < image.size()) image.resize(*truncated_);
  return image;
}

ScriptedImage ScriptedImageBuilder::build() const {
  std::vector<std::size_t> slotOffsets;
  ScriptedImage image(layOut(slotOffsets), slide_);
  image.slots_ = slotOffsets;
  const auto place = reinterpret_cast<std::uintptr_t>(image.header());
  if (linkeditBase_) image.slide_ = static_cast<std::intptr_t>(place - *linkeditBase_);
  std::size_t offset = headerSize();
  for (const Command& command : commands_) {
    if (command.fixLinkedit) {
      segment_command_64 segment{};
      std::memcpy(&segment, command.bytes.data(), sizeof segment);
      segment.vmaddr = place + segment.fileoff - static_cast<std::uint64_t>(image.slide_);
      patch(std::span(image.bytes(), image.size()), offset, segment);
    }
    for (std::size_t i = 0; command.slots && i < slotSections_[*command.slots].size(); ++i) {
      const std::size_t at =
          offset + sizeof(segment_command_64) + i * sizeof(section_64) + offsetof(section_64, addr);
      std::uint64_t address = 0;
      if (at + sizeof address > image.size()) continue;
      std::memcpy(&address, image.bytes() + at, sizeof address);
      address += place - static_cast<std::uint64_t>(image.slide_);
      patch(std::span(image.bytes(), image.size()), at, address);
    }
    offset += command.bytes.size();
  }
  return image;
}

}  // namespace qbv
