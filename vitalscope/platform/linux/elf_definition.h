// Looks a symbol up in a loaded ELF object, without the loader.
#pragma once

#include <cstdint>
#include <optional>

#include "vitalscope/platform/linux/byte_source.h"
#include "vitalscope/platform/linux/elf_object.h"

namespace qbv::linux_backend {

struct Definition {
  std::uint64_t address = 0;  // in memory; where a resolver chooses, the resolver's
  bool resolver = false;
  bool oldVersion = false;  // not the version that programs built today are bound to
};

// The function or datum of that name which the object offers to others. Any thread, no lock; with HeldMemory
// the object must not vanish. Every loop is bounded by the memory's range.
std::optional<Definition> definitionIn(const ByteSource& memory, const ElfObject& object, const char* name);

// Whether `address` is where an executable that is not position-independent has the function of another
// object begin: its own jump to it, which stands for the function wherever its address is taken.
bool isStandInFor(const ByteSource& memory, const ElfObject& object, const char* name, std::uint64_t address);

}  // namespace qbv::linux_backend
