// The symbol table of one loaded object, made when it is first asked for.
#pragma once

#include <cstddef>
#include <span>

#include "vitalscope/platform/linux/elf_object.h"

namespace qbv::linux_backend {

// The object's description together with its sorted function symbols, in one read-only mapping that is never
// taken back; empty when the kernel gives no memory. From the dynamic symbols and call-frame index in memory
// and, when file (may be null) is readable and the same build, from its full symbol table. Reads the file,
// takes pages of its own for the time of the call. Any thread, no lock; the object may vanish meanwhile.
std::span<const std::byte> buildImageSymbols(const ElfObject& object, bool executable, const char* file);

}  // namespace qbv::linux_backend
