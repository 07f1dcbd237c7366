// What the program headers of a loaded ELF object say: where it lies and which build it is.
#pragma once

#include <link.h>

#include <array>
#include <cstdint>
#include <span>

#include "vitalscope/platform/linux/byte_source.h"

namespace qbv::linux_backend {

struct BuildId {
  std::array<std::uint8_t, 64> bytes{};  // longer ones are cut
  std::uint32_t size = 0;                // 0: the object has none
  bool operator==(const BuildId&) const = default;
};

// A piece of the object as linked: addresses without the slide.
struct ElfSegment {
  std::uint64_t address = 0;
  std::uint64_t size = 0;
  bool relocationReadOnly = false;  // writable only until the object is relocated
};

struct ElfObject {
  std::uint64_t slide = 0;         // linked address + slide = address in memory
  AddressRange mapped;             // in memory, first byte of the first to last byte of the last segment
  AddressRange code;               // in memory, all executable segments
  AddressRange dynamic;            // in memory, the dynamic section
  AddressRange frameHeader;        // in memory, the index of the call-frame information
  std::array<ElfSegment, 6> data;  // writable segments, in address order; any further ones are left out
  std::uint32_t dataCount = 0;
  BuildId buildId;
  std::uint64_t layout = 0;  // hash of ELF header and program headers: the same for the same file
};

// Reads program headers and notes straight from memory: call it where the object cannot vanish (inside a
// dl_iterate_phdr callback). Takes no lock and no memory.
ElfObject readLoadedObject(const dl_phdr_info& info);

// The build id among the notes in these bytes, which need not make sense; size 0 when there is none.
BuildId findBuildId(std::span<const std::uint8_t> notes);

// Hash of an object's layout.
std::uint64_t layoutHash(const ElfW(Ehdr) & header, std::span<const ElfW(Phdr)> headers);

}  // namespace qbv::linux_backend
