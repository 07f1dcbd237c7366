// Writes the bytes of an image: header, load commands, symbol and string tables.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "vitalscope/platform/images.h"

namespace qbv {

struct ScriptedSymbol {
  std::string name;
  std::uint64_t value = 0;  // unslid address
  std::uint16_t desc = 0;
  std::uint8_t type = 0x0f;
  std::uint8_t sect = 1;
  std::optional<std::uint32_t> nameOffset = {};  // instead of the name's own place in the string table
};

// A symbol pointer slot: an index into the image's last symbol table, or a mark such as
// INDIRECT_SYMBOL_LOCAL, and what the slot holds.
struct ScriptedSlot {
  std::uint32_t symbol = 0;
  std::uint64_t value = 0;
};

struct ScriptedSlotSection {
  std::uint32_t type = S_LAZY_SYMBOL_POINTERS;
  std::vector<ScriptedSlot> slots;
  std::optional<std::string> segname = {};       // instead of the segment's own name
  std::optional<std::uint64_t> size = {};        // instead of 8 bytes a slot
  std::optional<std::uint32_t> firstEntry = {};  // instead of where its indirect symbols are
};

// An image in memory at a fixed address. Its bytes lie in a block of exactly their size, so that a read past
// the end is found by an address sanitizer. Moving it does not move the bytes.
class ScriptedImage {
 public:
  ScriptedImage(std::vector<std::byte> bytes, std::intptr_t slide);

  const void* header() const noexcept { return bytes_.get(); }
  std::byte* bytes() noexcept { return bytes_.get(); }
  std::size_t size() const noexcept { return size_; }
  std::intptr_t slide() const noexcept { return slide_; }
  // Where an unslid address lies in the process: what a stack would hold.
  std::uint64_t address(std::uint64_t vmaddr) const noexcept {
    return vmaddr + static_cast<std::uint64_t>(slide_);
  }
  bool holds(const void* address, std::size_t size) const noexcept;
  // What the slots hold now, counted over all sections in the order of the builder's calls.
  std::uint64_t slot(std::size_t number) const;

 private:
  friend class ScriptedImageBuilder;
  struct Free {
    void operator()(std::byte* bytes) const noexcept;
  };
  std::unique_ptr<std::byte[], Free> bytes_;
  std::size_t size_ = 0;
  std::intptr_t slide_ = 0;
  std::vector<std::size_t> slots_;  // offsets of their words
};

// Commands are written in the order of the calls. The tables of symbols() are found by readers through a
// segment "__LINKEDIT": linkedit() writes one whose address makes (vmaddr − fileoff + slide) the place of the
// bytes, so that text segments and the slide may be chosen freely. Without linkedit() there is none.
//   ScriptedImage image = ScriptedImageBuilder()
//       .segment("__TEXT", 0x100000000, 0x4000).linkedit()
//       .symbols({{"_main", 0x100001000}}).uuid(id).slide(0x5000).build();
class ScriptedImageBuilder {
 public:
  enum class Width { bits32, bits64 };

  // Header of 28 bytes (MH_MAGIC) or 32 bytes (MH_MAGIC_64); the width of segments that do not say otherwise.
  explicit ScriptedImageBuilder(Width width = Width::bits64);

  // Only the magic word changes; the rest stays in the machine's own byte order.
  ScriptedImageBuilder& magic(std::uint32_t value);
  ScriptedImageBuilder& cpu(std::uint32_t type, std::uint32_t subtype);
  ScriptedImageBuilder& slide(std::intptr_t value);

  // A segment of the builder's width; names longer than 16 bytes are cut.
  ScriptedImageBuilder& segment(const std::string& name, std::uint64_t vmaddr, std::uint64_t vmsize,
                                std::uint64_t fileoff = 0);
  ScriptedImageBuilder& segment32(const std::string& name, std::uint32_t vmaddr, std::uint32_t vmsize,
                                  std::uint32_t fileoff = 0);
  ScriptedImageBuilder& segment64(const std::string& name, std::uint64_t vmaddr, std::uint64_t vmsize,
                                  std::uint64_t fileoff = 0);
  // See above; a 64-bit command whatever the header's width.
  ScriptedImageBuilder& linkedit(std::uint64_t fileoff = 0x1000);
  // A "__LINKEDIT" of the builder's width at a chosen address. The image's slide then follows from where its
  // bytes lie; read it from the image. The one way for an all-32-bit image.
  ScriptedImageBuilder& linkeditAt(std::uint64_t vmaddr, std::uint64_t fileoff);

  // LC_SYMTAB with 64-bit entries in the order given, and their strings. May be called more than once.
  ScriptedImageBuilder& symbols(std::vector<ScriptedSymbol> symbols);
  // LC_SYMTAB with figures of the test's own.
  ScriptedImageBuilder& rawSymtab(std::uint32_t symoff, std::uint32_t nsyms, std::uint32_t stroff,
                                  std::uint32_t strsize);
  // A 64-bit segment with sections of symbol pointers, whose words lie behind the tables; their addresses
  // follow from where the bytes lie and the slide.
  ScriptedImageBuilder& slots(const std::string& segment, std::vector<ScriptedSlotSection> sections);
  // LC_DYSYMTAB for the indirect symbols of all slots, or with an entry count of the test's own.
  ScriptedImageBuilder& indirectSymbols(std::optional<std::uint32_t> count = {});
  ScriptedImageBuilder& uuid(const std::array<std::uint8_t, 16>& bytes);
  ScriptedImageBuilder& sortedSymbols();  // LC_QBV_SORTED_SYMTAB
  // Any command: cmd, cmdsize = 8 + payload (or the size given), payload.
  ScriptedImageBuilder& command(std::uint32_t cmd, std::span<const std::byte> payload = {},
                                std::optional<std::uint32_t> cmdsize = {});
  // Bytes behind the commands; answers nothing, they follow the tables written before.
  ScriptedImageBuilder& data(std::span<const std::byte> bytes);

  // Header fields instead of the true ones.
  ScriptedImageBuilder& commandCount(std::uint32_t ncmds);
  ScriptedImageBuilder& commandBytes(std::uint32_t sizeofcmds);
  // Cuts the finished image to so many bytes.
  ScriptedImageBuilder& truncate(std::size_t size);

  // May be called repeatedly: each call makes another image.
  ScriptedImage build() const;

 private:
  struct Command {
    std::vector<std::byte> bytes;
    std::optional<std::size_t> table;       // index of the table that an LC_SYMTAB describes
    bool fixLinkedit = false;               // vmaddr follows from the place of the bytes
    std::optional<std::size_t> slots = {};  // index of the sections that a segment has
    bool indirect = false;                  // an LC_DYSYMTAB
    std::optional<std::uint32_t> indirectCount = {};
  };
  std::size_t headerSize() const noexcept;
  std::vector<std::byte> layOut(std::vector<std::size_t>& slotOffsets) const;

  Width width_;
  std::uint32_t magic_;
  std::uint32_t cpuType_ = 0x0100000c;
  std::uint32_t cpuSubtype_ = 0;
  std::intptr_t slide_ = 0;
  std::optional<std::uint64_t> linkeditBase_;  // vmaddr − fileoff of linkeditAt
  std::vector<Command> commands_;
  std::vector<std::vector<ScriptedSymbol>> tables_;
  std::vector<std::vector<ScriptedSlotSection>> slotSections_;
  std::vector<std::byte> data_;
  std::optional<std::uint32_t> ncmds_;
  std::optional<std::uint32_t> sizeofcmds_;
  std::optional<std::size_t> truncated_;
};

}  // namespace qbv
