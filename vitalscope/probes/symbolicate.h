// Address symbolication over any image list.
#pragma once

#include "vitalscope/platform/images.h"
#include "vitalscope/probes/QBVSymbolication.h"

namespace qbv {

// As qbv_symbolicate, which asks for the platform's own images.
void symbolicate(Images& images, const std::uint64_t* addresses, qbv_symbol_record* records, int count,
                 int skipped);

}  // namespace qbv
