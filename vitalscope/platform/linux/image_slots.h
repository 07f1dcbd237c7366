// The record of one loaded object's pointer slots, made when it is first asked for.
#pragma once

#include <cstddef>
#include <functional>
#include <span>

#include "vitalscope/platform/linux/elf_object.h"

namespace qbv::linux_backend {

// The object's description together with its slots: per writable segment one section for what calls go
// through and one for what was bound at load, an indirect symbol table, and of each slot's symbol a nameless
// place in a symbol table (values are 0) with its name behind one underscore. Words between slots are marked
// INDIRECT_SYMBOL_LOCAL. A section less than a 64th of which are slots is left out. The block comes from
// `take` (size in bytes; null when there is none) and is aligned to 16 if that is. Empty without memory. The
// object must not vanish meanwhile.
std::span<std::byte> buildImageSlots(const ElfObject& object, bool executable,
                                     const std::function<void*(std::size_t)>& take);

}  // namespace qbv::linux_backend
