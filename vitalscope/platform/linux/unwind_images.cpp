#include "vitalscope/platform/linux/unwind_images.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstring>
#include <optional>

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kPage = 4096;

// Program headers as far as they lie in the image's first page, where linkers put them.
void addReadableSegments(std::uint64_t start, UnwindImage& image) {
  ElfW(Ehdr) header;
  std::memcpy(&header, reinterpret_cast<const void*>(start), sizeof header);
  const bool usable = std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
                      header.e_phentsize == sizeof(ElfW(Phdr)) && header.e_phoff < kPage &&
                      header.e_phoff % alignof(ElfW(Phdr)) == 0 &&
                      header.e_phnum <= (kPage - header.e_phoff) / sizeof(ElfW(Phdr));
  if (!usable) return;
  const auto* const segments = reinterpret_cast<const ElfW(Phdr)*>(start + header.e_phoff);
  std::optional<std::uint64_t> slide;
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    const ElfW(Phdr)& segment = segments[i];
    // The mapping starts with the first of them.
    if (segment.p_type == PT_LOAD && !slide) slide = start - segment.p_vaddr / kPage * kPage;
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_R) == 0) continue;
    image.addSegment({*slide + segment.p_vaddr, *slide + segment.p_vaddr + segment.p_filesz});
  }
}

}  // namespace

bool loadedImageAt(std::uint64_t pc, UnwindImage& image) {
  dl_find_object found{};
  if (_dl_find_object(reinterpret_cast<void*>(pc), &found) != 0) return false;
  image = {};
  image.frameHeader = reinterpret_cast<std::uint64_t>(found.dlfo_eh_frame);
  addReadableSegments(reinterpret_cast<std::uint64_t>(found.dlfo_map_start), image);
  return true;
}

}  // namespace qbv::linux_backend
