#include "vitalscope/platform/linux/unwind_entry.h"

namespace qbv::linux_backend {

namespace {

constexpr std::uint32_t kLongForm = 0xffffffff;

// The length field and the identifying field of a record.
struct Record {
  Extent body;  // what follows the identifying field
  std::uint64_t idAt = 0;
  std::uint64_t id = 0;  // 0: a common entry; otherwise how far before idAt the common entry stands
  std::uint64_t next = 0;
};

bool readRecord(const UnwindImage& image, std::uint64_t address, Record& record) {
  ByteReader bytes(image.readableFrom(address));
  const std::uint32_t shortLength = bytes.fixed<std::uint32_t>();
  const bool longForm = shortLength == kLongForm;
  const std::uint64_t length = longForm ? bytes.fixed<std::uint64_t>() : shortLength;
  if (length == 0) return false;
  ByteReader content(bytes.block(length));
  record.next = bytes.at();
  record.idAt = content.at();
  record.id = longForm ? content.fixed<std::uint64_t>() : content.fixed<std::uint32_t>();
  record.body = content.rest();
  return bytes.ok() && content.ok();
}

// The augmentation data of a common entry, letter by letter; an unknown letter ends the reading, which is
// right because the data's length is known.
void readAugmentation(Extent letters, ByteReader data, CommonEntry& common) {
  for (ByteReader text(letters); !text.atEnd();) {
    switch (text.u8()) {
      case 'R':
        common.pointerEncoding = data.u8();
        break;
      case 'P':
        data.pointer(data.u8());
        break;
      case 'L':
        data.u8();
        break;
      case 'S':
        common.signalFrame = true;
        break;
      case 'B':
      case 'G':
        break;
      default:
        return;
    }
  }
}

Extent readText(ByteReader& bytes) {
  const std::uint64_t begin = bytes.at();
  while (bytes.u8() != 0) {
  }
  return bytes.ok() ? Extent{begin, bytes.at() - 1} : Extent{};
}

bool readCommonEntry(const UnwindImage& image, std::uint64_t address, CommonEntry& common) {
  Record record;
  if (!readRecord(image, address, record) || record.id != 0) return false;
  ByteReader bytes(record.body);
  const std::uint8_t version = bytes.u8();
  if (version != 1 && version != 3 && version != 4) return false;
  ByteReader letters(readText(bytes));
  if (version == 4 && (bytes.u8() != sizeof(std::uint64_t) || bytes.u8() != 0)) return false;
  common.codeAlignment = bytes.uleb();
  common.dataAlignment = bytes.sleb();
  common.returnColumn = version == 1 ? bytes.u8() : bytes.uleb();
  if (!letters.atEnd()) {
    if (letters.u8() != 'z') return false;
    common.augmented = true;
    readAugmentation(letters.rest(), ByteReader(bytes.block(bytes.uleb())), common);
  }
  common.program = bytes.rest();
  return bytes.ok();
}

// One pass over the whole table, for headers without a search table.
bool scanEntries(const UnwindImage& image, std::uint64_t table, std::uint64_t pc, FrameEntry& entry) {
  constexpr int kMostEntries = 200000;
  Record record;
  for (int i = 0; i < kMostEntries && readRecord(image, table, record); ++i, table = record.next) {
    if (record.id != 0 && readFrameEntry(image, table, entry) && entry.code.contains(pc)) return true;
  }
  return false;
}

// The usual search table: pairs of 32-bit distances from the header (function, entry), sorted by function.
bool searchEntries(Extent table, std::uint64_t count, std::uint64_t header, std::uint64_t pc,
                   std::uint64_t& entryAddress) {
  struct Pair {
    std::int32_t function, entry;
  };
  const auto pairAt = [&](std::uint64_t index) {
    Pair pair;
    std::memcpy(&pair, reinterpret_cast<const void*>(table.begin + index * sizeof pair), sizeof pair);
    return pair;
  };
  const auto distance = static_cast<std::int64_t>(pc - header);
  if (count == 0 || count > table.size() / sizeof(Pair) || pairAt(0).function > distance) return false;
  std::uint64_t low = 0;
  for (std::uint64_t high = count; high - low > 1;) {
    const std::uint64_t middle = low + (high - low) / 2;
    (pairAt(middle).function <= distance ? low : high) = middle;
  }
  entryAddress = header + static_cast<std::uint64_t>(std::int64_t{pairAt(low).entry});
  return true;
}

}  // namespace

Extent UnwindImage::readableFrom(std::uint64_t address) const {
  for (std::size_t i = 0; i < segmentCount; ++i) {
    if (segments[i].contains(address)) return {address, segments[i].end};
  }
  return {};
}

bool readFrameEntry(const UnwindImage& image, std::uint64_t address, FrameEntry& entry) {
  Record record;
  if (!readRecord(image, address, record) || record.id == 0) return false;
  entry = {};
  if (!readCommonEntry(image, record.idAt - record.id, entry.common)) return false;
  const std::uint8_t encoding = entry.common.pointerEncoding;
  if ((encoding & kPointerIndirect) != 0) return false;
  ByteReader bytes(record.body);
  entry.code.begin = bytes.pointer(encoding);
  entry.code.end = entry.code.begin + bytes.pointer(encoding & 0x0f);
  if (entry.common.augmented) bytes.skip(bytes.uleb());
  entry.program = bytes.rest();
  return bytes.ok() && entry.code.end > entry.code.begin;
}

bool findFrameEntry(const UnwindImage& image, std::uint64_t pc, FrameEntry& entry) {
  constexpr std::uint8_t kUsualTable = 0x3b;
  if (image.frameHeader == 0) return false;
  ByteReader bytes(image.readableFrom(image.frameHeader));
  if (bytes.u8() != 1) return false;
  const std::uint8_t tableEncoding = bytes.u8();
  const std::uint8_t countEncoding = bytes.u8();
  const std::uint8_t searchEncoding = bytes.u8();
  if (tableEncoding == kPointerOmitted || (tableEncoding & kPointerIndirect) != 0) return false;
  const std::uint64_t table = bytes.pointer(tableEncoding, image.frameHeader);
  if (countEncoding == kPointerOmitted || searchEncoding != kUsualTable) {
    return bytes.ok() && scanEntries(image, table, pc, entry);
  }
  const std::uint64_t count = bytes.pointer(countEncoding, image.frameHeader);
  std::uint64_t address = 0;
  return bytes.ok() && searchEntries(bytes.rest(), count, image.frameHeader, pc, address) &&
         readFrameEntry(image, address, entry) && entry.code.contains(pc);
}

}  // namespace qbv::linux_backend
