// The text of one frame of a backtrace.
#pragma once

#include <cstdint>
#include <string>

#include "vitalscope/probes/QBVSymbolication.h"

namespace qbv {

// Appends "INDEX IMAGE ADDRESS SYMBOL + OFFSET\n": index in 4 columns and image name in 31, left-aligned, the
// address as 16 hexadecimal digits. Without an image the name is its load address in that form; without a
// symbol (or with the name "<redacted>") the load address in short form stands for it. Grows `text`,
// allocates nothing else: a large process has thousands of frames.
void appendFrameLine(std::string& text, int index, std::uint64_t address, const qbv_symbol_record& record);

}  // namespace qbv
