// Loaded images (executable and libraries) as Mach-O headers and load commands in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "vitalscope/platform/export.h"

namespace qbv {

// The published layouts, as far as this system reads or writes them.
inline constexpr std::uint32_t MH_MAGIC = 0xfeedface;
inline constexpr std::uint32_t MH_CIGAM = 0xcefaedfe;
inline constexpr std::uint32_t MH_MAGIC_64 = 0xfeedfacf;
inline constexpr std::uint32_t MH_CIGAM_64 = 0xcffaedfe;
inline constexpr std::uint32_t LC_SEGMENT = 0x1;
inline constexpr std::uint32_t LC_SYMTAB = 0x2;
inline constexpr std::uint32_t LC_DYSYMTAB = 0xb;
inline constexpr std::uint32_t LC_SEGMENT_64 = 0x19;
inline constexpr std::uint32_t LC_UUID = 0x1b;
// A command of our own without payload (8 bytes): the symbol table is sorted by n_value, ascending.
inline constexpr std::uint32_t LC_QBV_SORTED_SYMTAB = 0x51425653;

struct mach_header_64 {
  std::uint32_t magic, cputype, cpusubtype, filetype, ncmds, sizeofcmds, flags, reserved;
};
struct load_command {
  std::uint32_t cmd, cmdsize;
};
struct segment_command_64 {
  std::uint32_t cmd, cmdsize;
  char segname[16];
  std::uint64_t vmaddr, vmsize, fileoff, filesize;
  std::uint32_t maxprot, initprot, nsects, flags;
};
struct segment_command {
  std::uint32_t cmd, cmdsize;
  char segname[16];
  std::uint32_t vmaddr, vmsize, fileoff, filesize, maxprot, initprot, nsects, flags;
};
struct symtab_command {
  std::uint32_t cmd, cmdsize, symoff, nsyms, stroff, strsize;
};
struct uuid_command {
  std::uint32_t cmd, cmdsize;
  std::uint8_t uuid[16];
};
struct section_64 {
  char sectname[16], segname[16];
  std::uint64_t addr, size;
  std::uint32_t offset, align, reloff, nreloc, flags, reserved1, reserved2, reserved3;
};
struct dysymtab_command {
  std::uint32_t cmd, cmdsize, ilocalsym, nlocalsym, iextdefsym, nextdefsym, iundefsym, nundefsym, tocoff,
      ntoc, modtaboff, nmodtab, extrefsymoff, nextrefsyms, indirectsymoff, nindirectsyms, extreloff, nextrel,
      locreloff, nlocrel;
};
struct nlist_64 {
  std::uint32_t n_strx;
  std::uint8_t n_type, n_sect;
  std::uint16_t n_desc;
  std::uint64_t n_value;
};
static_assert(sizeof(mach_header_64) == 32 && sizeof(segment_command_64) == 72 && sizeof(nlist_64) == 16 &&
              sizeof(section_64) == 80 && sizeof(dysymtab_command) == 80);

// Section types (low byte of a section's flags) and marks of the indirect symbol table.
inline constexpr std::uint32_t S_NON_LAZY_SYMBOL_POINTERS = 6;
inline constexpr std::uint32_t S_LAZY_SYMBOL_POINTERS = 7;
inline constexpr std::uint32_t INDIRECT_SYMBOL_LOCAL = 0x80000000;
inline constexpr std::uint32_t INDIRECT_SYMBOL_ABS = 0x40000000;
inline constexpr int VM_PROT_READ = 0x1;
inline constexpr int VM_PROT_WRITE = 0x2;
inline constexpr int VM_PROT_COPY = 0x10;

// All operations: any thread, not in signal handlers. Look-ups take no lock and allocate nothing, except
// where said. An index names the same image as long as that image is loaded; the place of an image that was
// unloaded has a null header until another image takes it. Descriptions once handed out stay readable for
// ever.
class QBV_EXPORT Images {
 public:
  virtual ~Images() = default;

  // Places in the list, empty ones included. linux: first takes in what was loaded or unloaded since the last
  // call (a comparison of two counters when nothing was).
  virtual std::uint32_t _dyld_image_count() = 0;
  // The image's header followed by its load commands; null past the end or for an empty place.
  virtual const void* _dyld_get_image_header(std::uint32_t index) = 0;
  virtual std::intptr_t _dyld_get_image_vmaddr_slide(std::uint32_t index) = 0;
  // Path as the loader reports it; the executable has its full path. Null for an empty place.
  virtual const char* _dyld_get_image_name(std::uint32_t index) = 0;
  // Where the image is mapped: what reports print. Scripted: the header's own address.
  virtual std::uint64_t loadAddress(std::uint32_t index) = 0;
  // A header of the same image whose commands also describe its symbol and string table, with the same
  // segments. linux builds it on the first call for an image (reads the file, allocates, locks), then answers
  // without.
  virtual const void* headerWithSymbols(std::uint32_t index) = 0;
  // Whether these bytes belong to the image's description (header, commands, tables) and may be read.
  virtual bool readable(std::uint32_t index, const void* address, std::size_t size) = 0;
  // The image that probably holds a code address, found faster than by walking all; nothing when not known.
  virtual std::optional<std::uint32_t> likelyImage(std::uint64_t address) = 0;

  // Calls back once for each image present, on this thread and before it returns, and then once for each
  // image that is loaded later, on a thread of the platform's: at once when the loader is through with it
  // (linux: see docs/profiling.md for how soon). For good; at most 32 callbacks, which must not register
  // another. The header is the one of headerWithSlots. linux: waits until a dlopen under way on another
  // thread is over.
  using AddImageCallback = void (*)(const mach_header_64* header, std::intptr_t slide);
  virtual void _dyld_register_func_for_add_image(AddImageCallback callback) = 0;
  // A header of the same image whose commands also describe its symbol pointer slots: sections, symbol and
  // string table, indirect symbol table. Null for an empty place, and while the loader has not yet filled the
  // image's slots (the callbacks above follow when it has). linux builds it on the first call for an image.
  virtual const void* headerWithSlots(std::uint32_t index) = 0;
  // Waits until no dlopen is under way on another thread; then what _dyld_image_count answers. From then on
  // headerWithSlots has an answer for all these places. Not where a thread that runs a library's constructor
  // may wait for this one.
  virtual std::uint32_t settledImageCount() = 0;
  // Calls `use` with the place of the loaded image that this header (one of the three) belongs to, and keeps
  // the image from being unloaded meanwhile; false, without a call, when it belongs to none (any more). linux
  // holds the loader's list of images: use must be short, must neither load, unload, fork nor wait, and of
  // this class it may call only what stands below and the look-ups that are given a place.
  virtual bool whileLoaded(const void* header, const std::function<void(std::uint32_t index)>& use) = 0;
  // Whether these bytes are the image's own data, where its slots may lie.
  virtual bool holdsData(std::uint32_t index, std::uint64_t address, std::size_t size) = 0;
  // The function that a slot's value leads to. Where an image has not bound the slot yet, or an executable
  // has a stand-in for the function, that is another address, by which a caller never comes back through a
  // slot; the value itself when it is that already or nothing is known. `name` without a leading underscore.
  // Inside whileLoaded of the image.
  virtual std::uint64_t functionBehind(std::uint32_t index, const char* name, std::uint64_t slot,
                                       std::uint64_t value) = 0;
  // Changes what may be done with the pages that hold these bytes; 0 is success.
  virtual int vm_protect(std::uint64_t address, std::uint64_t size, bool setMaximum, int protection) = 0;
};

}  // namespace qbv
