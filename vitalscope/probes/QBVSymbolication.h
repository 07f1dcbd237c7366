// From code addresses to symbol records, through the loaded images' own symbol tables.
#pragma once

#include <stdint.h>

#include "vitalscope/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// What is known about one code address; the layout is that of the loader's own address information. The
// strings belong to the loader and to the image's description: they stay readable, nobody frees them.
struct qbv_symbol_record {
  const char* image_path;       // as the loader reports it; null when no image holds the address
  uint64_t image_load_address;  // where the image is mapped, 0 with a null path
  const char* symbol_name;      // without one leading "_", not demangled; null when there is none
  uint64_t symbol_address;      // start of the symbol, 0 when none was found
};

// Fills records[i] for addresses[i], 0 <= i < count; a count of 0 or less fills nothing. With skipped 0,
// address 0 is a program counter and is looked up as it is; all others (all of them with any other skipped)
// are return addresses and are looked up inside the call before them. What is not known stays null.
// Any thread, not in signal handlers. Takes no lock and allocates nothing of its own; the platform may do
// both the first time an image's symbols are needed. Bytes of an image's description that make no sense end
// the search in that image and are never followed out of it.
QBV_EXPORT void qbv_symbolicate(const uint64_t* addresses, struct qbv_symbol_record* records, int count,
                                int skipped);

#ifdef __cplusplus
}
static_assert(sizeof(qbv_symbol_record) == 32);
#endif
