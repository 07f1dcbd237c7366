#include "vitalscope/platform/linux/image_description.h"

#include <algorithm>
#include <cstring>

namespace qbv::linux_backend {

namespace {

constexpr std::uint32_t kExecutable = 2;  // file types of the published layout
constexpr std::uint32_t kLibrary = 6;
constexpr std::uint32_t kReadWrite = 3;
constexpr std::uint32_t kReadExecute = 5;
#if defined(__x86_64__)
constexpr std::uint32_t kCpuType = 0x01000007;
#elif defined(__aarch64__)
constexpr std::uint32_t kCpuType = 0x0100000c;
#else
constexpr std::uint32_t kCpuType = 0;
#endif

// Writes one command after the other.
class CommandWriter {
 public:
  explicit CommandWriter(std::byte* at) : at_(at) {}

  template <typename Command>
  void add(const Command& command) {
    std::memcpy(at_, &command, sizeof command);
    at_ += sizeof command;
    ++count_;
  }
  // The segment's sections have to follow.
  void addSegment(const char* name, std::uint64_t address, std::uint64_t size, std::uint32_t protection,
                  std::uint32_t sections = 0) {
    segment_command_64 segment{};
    segment.cmd = LC_SEGMENT_64;
    segment.cmdsize = static_cast<std::uint32_t>(sizeof segment + sections * sizeof(section_64));
    segment.nsects = sections;
    setName(segment.segname, name);
    segment.vmaddr = address;
    segment.vmsize = segment.filesize = size;
    segment.maxprot = segment.initprot = protection;
    add(segment);
  }
  void addSection(const char* segment, const DescribedSlots::Section& slots) {
    section_64 section{};
    setName(section.sectname, slots.lazy ? "__la_symbol_ptr" : "__got");
    setName(section.segname, segment);
    section.addr = slots.address;
    section.size = slots.words * sizeof(std::uint64_t);
    section.align = 3;
    section.flags = slots.lazy ? S_LAZY_SYMBOL_POINTERS : S_NON_LAZY_SYMBOL_POINTERS;
    section.reserved1 = slots.first;
    std::memcpy(at_, &section, sizeof section);
    at_ += sizeof section;
  }
  std::uint32_t count() const { return count_; }

 private:
  static void setName(char (&to)[16], const char* name) {
    std::memcpy(to, name, std::min(std::strlen(name), sizeof to));
  }

  std::byte* at_;
  std::uint32_t count_ = 0;
};

// Objects without code still have a first part that reports can name.
std::uint64_t textEnd(const ElfObject& object) {
  if (object.code.end != 0) return object.code.end;
  return object.dataCount > 0 ? object.slide + object.data[0].address : object.mapped.end;
}

void addData(CommandWriter& commands, const ElfObject& object, std::uint32_t index,
             const DescribedSlots* slots) {
  const ElfSegment& data = object.data[index];
  const char* const name = data.relocationReadOnly ? "__DATA_CONST" : "__DATA";
  const auto here = [index](const DescribedSlots::Section& section) { return section.segment == index; };
  const std::span<const DescribedSlots::Section> sections =
      slots != nullptr ? slots->sections : std::span<const DescribedSlots::Section>();
  commands.addSegment(name, data.address, data.size, kReadWrite,
                      static_cast<std::uint32_t>(std::count_if(sections.begin(), sections.end(), here)));
  for (const DescribedSlots::Section& section : sections) {
    if (here(section)) commands.addSection(name, section);
  }
}

void addSegments(CommandWriter& commands, const ElfObject& object, std::span<std::byte> block,
                 const DescribedSlots* slots) {
  const std::uint64_t load = object.mapped.start;
  commands.addSegment("__TEXT", load - object.slide, textEnd(object) - load, kReadExecute);
  for (std::uint32_t i = 0; i < object.dataCount; ++i) addData(commands, object, i, slots);
  commands.addSegment("__LINKEDIT", reinterpret_cast<std::uint64_t>(block.data()) - object.slide,
                      block.size(), 1);
}

void addUuid(CommandWriter& commands, const BuildId& id) {
  uuid_command command{LC_UUID, sizeof command, {}};
  std::memcpy(command.uuid, id.bytes.data(), sizeof command.uuid);
  commands.add(command);
}

void addSymbols(CommandWriter& commands, const DescribedSymbols& symbols, bool sorted) {
  commands.add(symtab_command{LC_SYMTAB, sizeof(symtab_command), symbols.symbols, symbols.count,
                              symbols.strings, symbols.stringsSize});
  if (sorted) commands.add(load_command{LC_QBV_SORTED_SYMTAB, sizeof(load_command)});
}

void addIndirect(CommandWriter& commands, const DescribedSlots& slots) {
  dysymtab_command command{};
  command.cmd = LC_DYSYMTAB;
  command.cmdsize = sizeof command;
  command.indirectsymoff = slots.indirect;
  command.nindirectsyms = slots.indirectCount;
  commands.add(command);
}

}  // namespace

std::size_t descriptionSize(const ElfObject& object, const Describe& what) {
  std::size_t size = sizeof(mach_header_64) + (2 + object.dataCount) * sizeof(segment_command_64);
  if (object.buildId.size != 0) size += sizeof(uuid_command);
  if (what.symbols != nullptr) size += sizeof(symtab_command) + (what.sorted ? sizeof(load_command) : 0);
  if (what.slots != nullptr)
    size += sizeof(dysymtab_command) + what.slots->sections.size() * sizeof(section_64);
  return size;
}

void writeDescription(const ElfObject& object, bool executable, std::span<std::byte> block,
                      const Describe& what) {
  CommandWriter commands(block.data() + sizeof(mach_header_64));
  addSegments(commands, object, block, what.slots);
  if (object.buildId.size != 0) addUuid(commands, object.buildId);
  if (what.symbols != nullptr) addSymbols(commands, *what.symbols, what.sorted);
  if (what.slots != nullptr) addIndirect(commands, *what.slots);
  const auto size = static_cast<std::uint32_t>(descriptionSize(object, what) - sizeof(mach_header_64));
  const mach_header_64 header{MH_MAGIC_64,      kCpuType, 0, executable ? kExecutable : kLibrary,
                              commands.count(), size,     0, 0};
  std::memcpy(block.data(), &header, sizeof header);
}

}  // namespace qbv::linux_backend
