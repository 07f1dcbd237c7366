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
  void addSegment(const char* name, std::uint64_t address, std::uint64_t size, std::uint32_t protection) {
    segment_command_64 segment{};
    segment.cmd = LC_SEGMENT_64;
    segment.cmdsize = sizeof segment;
    std::memcpy(segment.segname, name, std::min(std::strlen(name), sizeof segment.segname));
    segment.vmaddr = address;
    segment.vmsize = segment.filesize = size;
    segment.maxprot = segment.initprot = protection;
    add(segment);
  }
  std::uint32_t count() const { return count_; }

 private:
  std::byte* at_;
  std::uint32_t count_ = 0;
};

// Objects without code still have a first part that reports can name.
std::uint64_t textEnd(const ElfObject& object) {
  if (object.code.end != 0) return object.code.end;
  return object.dataCount > 0 ? object.slide + object.data[0].address : object.mapped.end;
}

void addSegments(CommandWriter& commands, const ElfObject& object, std::span<std::byte> block) {
  const std::uint64_t load = object.mapped.start;
  commands.addSegment("__TEXT", load - object.slide, textEnd(object) - load, kReadExecute);
  for (std::uint32_t i = 0; i < object.dataCount; ++i) {
    const ElfSegment& data = object.data[i];
    commands.addSegment(data.relocationReadOnly ? "__DATA_CONST" : "__DATA", data.address, data.size,
                        kReadWrite);
  }
  commands.addSegment("__LINKEDIT", reinterpret_cast<std::uint64_t>(block.data()) - object.slide,
                      block.size(), 1);
}

void addUuid(CommandWriter& commands, const BuildId& id) {
  uuid_command command{LC_UUID, sizeof command, {}};
  std::memcpy(command.uuid, id.bytes.data(), sizeof command.uuid);
  commands.add(command);
}

void addSymbols(CommandWriter& commands, const DescribedSymbols& symbols) {
  commands.add(symtab_command{LC_SYMTAB, sizeof(symtab_command), symbols.symbols, symbols.count,
                              symbols.strings, symbols.stringsSize});
  commands.add(load_command{LC_QBV_SORTED_SYMTAB, sizeof(load_command)});
}

}  // namespace

std::size_t descriptionSize(const ElfObject& object, bool withSymbols) {
  return sizeof(mach_header_64) + (2 + object.dataCount) * sizeof(segment_command_64) +
         (object.buildId.size != 0 ? sizeof(uuid_command) : 0) +
         (withSymbols ? sizeof(symtab_command) + sizeof(load_command) : 0);
}

void writeDescription(const ElfObject& object, bool executable, std::span<std::byte> block,
                      const DescribedSymbols* symbols) {
  CommandWriter commands(block.data() + sizeof(mach_header_64));
  addSegments(commands, object, block);
  if (object.buildId.size != 0) addUuid(commands, object.buildId);
  if (symbols != nullptr) addSymbols(commands, *symbols);
  const auto size =
      static_cast<std::uint32_t>(descriptionSize(object, symbols != nullptr) - sizeof(mach_header_64));
  const mach_header_64 header{MH_MAGIC_64,      kCpuType, 0, executable ? kExecutable : kLibrary,
                              commands.count(), size,     0, 0};
  std::memcpy(block.data(), &header, sizeof header);
}

}  // namespace qbv::linux_backend
