// Redirects the calls that loaded images make to an imported function, by rewriting their symbol pointer
// slots.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/images.h"

extern "C" {

// One request. `name` is the symbol as written in source ("objc_msgSend").
struct qb_rebinding {
  const char* name;
  void* replacement;  // what every matching slot is to hold
  void** replaced;    // where to put what a slot held before; null: nowhere
};

// One node of the process-wide list, newest first. The requests and their names are the node's own. Nodes are
// only ever put in front; none is removed or freed.
struct qb_rebindings_entry {
  qb_rebinding* rebindings;
  std::size_t rebindings_nel;
  qb_rebindings_entry* next;
};

// Puts a copy of the request (its name too) at the head of the list and applies the list to every image that
// is loaded, and from then on to every image that is loaded later. The newest request for a name decides.
// When it returns, every slot of the images present holds the replacement and `*replaced` the value of the
// last slot that did not hold it before: the function itself, also where the slot had not been bound yet.
// `*replaced` is stored before the slot it came from is rewritten, so a replacement that calls it never finds
// it empty; it has to stay writable for ever, since later images store into it too. Any thread, several at
// once as well, not in signal handlers; takes no lock of its own. The first call of the process may wait
// until a dlopen under way on another thread is over (constructors included). Other threads may call through
// the slots meanwhile: each sees the old or the new function. Without memory it does nothing. A
// "__DATA_CONST" section that cannot be made writable ends the process.
QBV_EXPORT void qb_rebind_symbols(const qb_rebinding* rebinding);

// Applies the list that starts at `head` to one image, with the bounds of what the platform calls readable.
// Leaves alone what is no loaded image or lacks a symbol table, a dynamic symbol table with indirect symbols
// or a
// "__LINKEDIT" segment. The image is kept loaded meanwhile.
QBV_EXPORT void qb_rebind_symbols_for_image(const qb_rebindings_entry* head,
                                            const qbv::mach_header_64* header, std::intptr_t slide);

// Applies the list to the slots of one section. Everything passed is believed: the tables must reach as far
// as the section's slots and their symbols do.
QBV_EXPORT void qb_perform_rebinding_with_section(const qb_rebindings_entry* head,
                                                  const qbv::section_64* section, std::intptr_t slide,
                                                  const qbv::nlist_64* symbols, const char* strings,
                                                  const std::uint32_t* indirectSymbols);

// What the loader calls for every image: applies the present list.
QBV_EXPORT void qb_rebind_image_added(const qbv::mach_header_64* header, std::intptr_t slide);

}  // extern "C"
