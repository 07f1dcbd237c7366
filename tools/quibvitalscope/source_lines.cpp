#include "tools/quibvitalscope/source_lines.h"

#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <gelf.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string_view>
#include <utility>

#include "vitalscope/platform/linux/descriptor.h"

namespace qbv::cli {
namespace {

using linux_backend::Descriptor;

constexpr std::size_t kUuidDigits = 32;
constexpr GElf_Addr kPageMask = ~GElf_Addr{4095};

const Dwfl_Callbacks kCallbacks = {.find_elf = dwfl_build_id_find_elf,
                                   .find_debuginfo = dwfl_standard_find_debuginfo,
                                   .section_address = dwfl_offline_section_address,
                                   .debuginfo_path = nullptr};

// The address that the file's own headers give its first loaded page.
std::optional<GElf_Addr> firstAddress(int file) {
  Elf* const elf = elf_begin(file, ELF_C_READ_MMAP, nullptr);
  std::size_t count = 0;
  std::optional<GElf_Addr> address;
  if (elf != nullptr && elf_kind(elf) == ELF_K_ELF && elf_getphdrnum(elf, &count) == 0) {
    for (std::size_t i = 0; i < count && !address; ++i) {
      GElf_Phdr segment;
      if (gelf_getphdr(elf, static_cast<int>(i), &segment) != nullptr && segment.p_type == PT_LOAD)
        address = segment.p_vaddr & kPageMask;
    }
  }
  elf_end(elf);
  return address;
}

}  // namespace

std::string SourceLines::buildIdOf(Dwfl_Module* module) {
  const unsigned char* bytes = nullptr;
  GElf_Addr where = 0;
  const int length = dwfl_module_build_id(module, &bytes, &where);
  std::string digits;
  for (int i = 0; i < length; ++i) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    digits += kDigits[bytes[i] >> 4];
    digits += kDigits[bytes[i] & 15];
  }
  // Reports hold sixteen bytes, whatever the id's length.
  digits.resize(kUuidDigits, '0');
  return length > 0 ? digits : "";
}

struct SourceLines::Module {
  ImageFile state = ImageFile::unreadable;
  Dwfl* dwfl = nullptr;
  Dwfl_Module* module = nullptr;

  explicit Module(const reader::Image& image) { state = open(image); }
  ~Module() {
    if (dwfl != nullptr) dwfl_end(dwfl);
  }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

 private:
  ImageFile open(const reader::Image& image) {
    struct stat status {};
    if (!image.path.starts_with('/') || ::stat(image.path.c_str(), &status) != 0) return ImageFile::missing;
    if (image.buildId.empty()) return ImageFile::noBuildId;
    if (!S_ISREG(status.st_mode)) return ImageFile::unreadable;
    const Descriptor file(::open(image.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    const auto first = file ? firstAddress(file.get()) : std::nullopt;
    if (!first) return ImageFile::unreadable;
    dwfl = dwfl_begin(&kCallbacks);
    if (dwfl == nullptr) return ImageFile::unreadable;
    module = dwfl_report_elf(dwfl, image.name.c_str(), image.path.c_str(), -1, image.begin - *first, true);
    dwfl_report_end(dwfl, nullptr, nullptr);
    if (module == nullptr) return ImageFile::unreadable;
    return buildIdOf(module) == image.buildId ? ImageFile::same : ImageFile::otherBuild;
  }
};

SourceLines::SourceLines() {
  elf_version(EV_CURRENT);
  // A look at a report must not wait for, or tell anything to, a server of debug information.
  ::unsetenv("DEBUGINFOD_URLS");
}

SourceLines::~SourceLines() = default;

const char* imageFileName(ImageFile state) {
  switch (state) {
    case ImageFile::same:
      return "same";
    case ImageFile::missing:
      return "missing";
    case ImageFile::otherBuild:
      return "other build";
    case ImageFile::noBuildId:
      return "no build id";
    case ImageFile::unreadable:
      break;
  }
  return "unreadable";
}

SourceLines::Module& SourceLines::moduleOf(const reader::Image& image) {
  std::unique_ptr<Module>& module = modules_[std::to_string(image.begin) + " " + image.buildId + image.path];
  if (!module) module = std::make_unique<Module>(image);
  return *module;
}

ImageFile SourceLines::state(const reader::Image& image) {
  return moduleOf(image).state;
}

std::optional<SourcePlace> SourceLines::at(const reader::Image& image, std::uint64_t address,
                                           bool isReturnAddress) {
  const Module& found = moduleOf(image);
  if (found.state != ImageFile::same || address == 0) return std::nullopt;
  const GElf_Addr asked = address - (isReturnAddress ? 1 : 0);
  SourcePlace place;
  GElf_Off offset = 0;
  GElf_Sym symbol{};
  const char* const name =
      dwfl_module_addrinfo(found.module, asked, &offset, &symbol, nullptr, nullptr, nullptr);
  // A symbol that ends before the address is only the nearest one.
  if (name != nullptr && (symbol.st_size == 0 || offset < symbol.st_size)) place.function = name;
  if (Dwfl_Line* const line = dwfl_module_getsrc(found.module, asked)) {
    const char* const file = dwfl_lineinfo(line, nullptr, &place.line, nullptr, nullptr, nullptr);
    if (file != nullptr && place.line > 0) place.file = file;
  }
  if (place.function.empty() && place.file.empty()) return std::nullopt;
  return place;
}

}  // namespace qbv::cli
