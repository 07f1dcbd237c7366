#include "vitalscope/probes/image_reader.h"

#include <limits>

namespace qbv {

namespace {

constexpr std::uint64_t kHeaderSize32 = 28;
constexpr std::uint64_t kHeaderSize64 = sizeof(mach_header_64);
constexpr std::uint16_t kNameless = 16;  // n_desc of an entry whose name is not shown
constexpr char kLinkedit[16] = "__LINKEDIT";

// The two layouts share their start, as far as it is read.
constexpr std::uint64_t kCommandCountAt = 16;
constexpr std::uint64_t kCommandsSizeAt = 20;
constexpr std::uint64_t kCommonSize = 24;

std::uint64_t headerSize(std::uint32_t magic) {
  if (magic == MH_MAGIC_64 || magic == MH_CIGAM_64) return kHeaderSize64;
  return magic == MH_MAGIC || magic == MH_CIGAM ? kHeaderSize32 : 0;
}

// Bytes of a command up to the last field that is read.
std::uint64_t neededSize(std::uint32_t command) {
  switch (command) {
    case LC_SEGMENT:
      return offsetof(segment_command, filesize);
    case LC_SEGMENT_64:
      return offsetof(segment_command_64, filesize);
    case LC_SYMTAB:
      return offsetof(symtab_command, strsize);
    default:
      return sizeof(load_command);
  }
}

}  // namespace

ImageReader::ImageReader(Images& images, std::uint32_t index, const void* header)
    : images_(images), index_(index) {
  const auto start = reinterpret_cast<std::uint64_t>(header);
  if (header == nullptr || !images_.readable(index_, header, kCommonSize)) return;
  const std::uint64_t size = headerSize(at<std::uint32_t>(start));
  if (size == 0) return;
  first_ = trusted_ = start + size;
  count_ = at<std::uint32_t>(start + kCommandCountAt);
  const auto commands = at<std::uint32_t>(start + kCommandsSizeAt);
  if (images_.readable(index_, header, size + commands)) trusted_ += commands;
}

bool ImageReader::can(std::uint64_t address, std::uint64_t size) const {
  if (address >= first_ && address <= trusted_ && size <= trusted_ - address) return true;
  return images_.readable(index_, reinterpret_cast<const void*>(address), size);
}

// Until visit is content or the commands make no sense.
template <typename Visit>
void ImageReader::walk(Visit visit) const {
  Command command{first_, {}};
  for (std::uint32_t i = 0; i < count_; ++i) {
    if (!can(command.at, sizeof(load_command))) return;
    command.head = at<load_command>(command.at);
    const std::uint64_t needed = neededSize(command.head.cmd);
    if (command.head.cmdsize < needed || !can(command.at, needed)) return;
    if (visit(command)) return;
    command.at += command.head.cmdsize;
  }
}

std::optional<ImageReader::Segment> ImageReader::segment(const Command& command) {
  Segment found{};
  const std::uint64_t start = command.at;
  if (command.head.cmd == LC_SEGMENT_64) {
    found.address = at<std::uint64_t>(start + offsetof(segment_command_64, vmaddr));
    found.size = at<std::uint64_t>(start + offsetof(segment_command_64, vmsize));
    found.fileOffset = at<std::uint64_t>(start + offsetof(segment_command_64, fileoff));
  } else if (command.head.cmd == LC_SEGMENT) {
    found.address = at<std::uint32_t>(start + offsetof(segment_command, vmaddr));
    found.size = at<std::uint32_t>(start + offsetof(segment_command, vmsize));
    found.fileOffset = at<std::uint32_t>(start + offsetof(segment_command, fileoff));
  } else {
    return std::nullopt;
  }
  static_assert(offsetof(segment_command, segname) == offsetof(segment_command_64, segname));
  std::memcpy(found.name, reinterpret_cast<const char*>(start) + offsetof(segment_command, segname),
              sizeof found.name);
  return found;
}

bool ImageReader::hasSegmentAt(std::uint64_t address) const {
  bool found = false;
  walk([&](const Command& command) {
    const std::optional<Segment> here = segment(command);
    found = here && address >= here->address && address - here->address < here->size;
    return found;
  });
  return found;
}

ImageReader::Tables ImageReader::tables() const {
  Tables tables;
  bool known = false;
  walk([&](const Command& command) {
    if (command.head.cmd == LC_QBV_SORTED_SYMTAB) tables.sorted = true;
    if (known) return false;
    const std::optional<Segment> here = segment(command);
    if (here && std::strncmp(here->name, kLinkedit, sizeof here->name) == 0) {
      tables.linkeditOffset = here->address - here->fileOffset;
      known = true;
    }
    return false;
  });
  return tables;
}

std::optional<std::uint64_t> ImageReader::nearestEntry(std::uint64_t entries, std::uint64_t count,
                                                       std::uint64_t address, bool sorted) {
  const auto value = [entries](std::uint64_t i) {
    return at<std::uint64_t>(entries + i * sizeof(nlist_64) + offsetof(nlist_64, n_value));
  };
  std::optional<std::uint64_t> best;
  if (sorted) {
    std::uint64_t low = 0;
    for (std::uint64_t high = count; low < high;) {
      const std::uint64_t middle = low + (high - low) / 2;
      if (value(middle) <= address) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    if (low > 0 && value(low - 1) != 0) best = low - 1;
    return best;
  }
  std::uint64_t distance = std::numeric_limits<std::uint64_t>::max();
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t here = value(i);
    if (here == 0 || here > address || address - here > distance) continue;
    best = i;
    distance = address - here;
  }
  return best;
}

// A name must end inside the readable bytes. The table's own size saves asking for each of them.
const char* ImageReader::name(std::uint64_t strings, std::uint64_t size, std::uint64_t offset) const {
  const auto* const text = reinterpret_cast<const char*>(strings + offset);
  const bool inside = offset < size && can(strings + offset, size - offset);
  if (!inside || std::memchr(text, 0, size - offset) == nullptr) {
    std::uint64_t end = strings + offset;
    do {
      if (!can(end, 1)) return nullptr;
    } while (at<char>(end++) != '\0');
  }
  return *text == '_' ? text + 1 : text;
}

std::optional<ImageSymbol> ImageReader::nearestSymbol(std::uint64_t base, std::uint64_t address,
                                                      bool sorted) const {
  std::optional<ImageSymbol> found;
  walk([&](const Command& command) {
    if (command.head.cmd != LC_SYMTAB) return false;
    symtab_command table{};
    const bool complete = command.head.cmdsize >= sizeof table && can(command.at, sizeof table);
    std::memcpy(&table, reinterpret_cast<const void*>(command.at),
                complete ? sizeof table : offsetof(symtab_command, strsize));
    const std::uint64_t entries = base + table.symoff;
    if (!can(entries, std::uint64_t{table.nsyms} * sizeof(nlist_64))) return true;
    const std::optional<std::uint64_t> best = nearestEntry(entries, table.nsyms, address, sorted);
    if (!best) return false;
    const auto entry = at<nlist_64>(entries + *best * sizeof(nlist_64));
    found = ImageSymbol{entry.n_value, nullptr};
    if (entry.n_desc != kNameless) found->name = name(base + table.stroff, table.strsize, entry.n_strx);
    return true;
  });
  return found;
}

}  // namespace qbv
