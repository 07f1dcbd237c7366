// The loaded image that holds a code address.
#pragma once

#include <cstdint>

#include "vitalscope/platform/linux/unwind_entry.h"

namespace qbv::linux_backend {

// Fills in the image that holds pc; false when none does. Lock-free. The image stays mapped only while the
// loader's list is held still: call it from a callback of dl_iterate_phdr.
bool loadedImageAt(std::uint64_t pc, UnwindImage& image);

}  // namespace qbv::linux_backend
