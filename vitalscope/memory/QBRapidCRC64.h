// The checksum that names a call stack.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "vitalscope/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Reflected CRC-64 of the ECMA-182 polynomial, register and result inverted. Takes the data in whole groups
// of 8 bytes, in the machine's byte order; up to 7 bytes at the end are not used, so fewer than 8 bytes
// answer the seed. A result may be the seed of the next piece. Any thread, also in signal handlers and
// allocation hooks; takes no lock and allocates nothing.
QBV_EXPORT uint64_t rapid_crc64(uint64_t seed, const void* data, uint64_t length);

#ifdef __cplusplus
}
#endif
