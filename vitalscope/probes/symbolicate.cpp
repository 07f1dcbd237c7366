#include "vitalscope/probes/symbolicate.h"

#include <optional>

#include "vitalscope/probes/image_reader.h"

namespace qbv {

namespace {

// An image that was found to hold an address, as it was at that look: its place may be another's by now.
struct Holder {
  std::uint32_t index;
  const void* header;
  std::uint64_t slide;
};

std::optional<Holder> holder(Images& images, std::uint32_t index, std::uint64_t address) {
  const void* const header = images._dyld_get_image_header(index);
  const auto slide = static_cast<std::uint64_t>(images._dyld_get_image_vmaddr_slide(index));
  if (!ImageReader(images, index, header).hasSegmentAt(address - slide)) return std::nullopt;
  return Holder{index, header, slide};
}

// The platform's guess counts when the image's own commands agree.
std::optional<Holder> holderOf(Images& images, std::uint64_t address) {
  if (const std::optional<std::uint32_t> guess = images.likelyImage(address)) {
    if (const std::optional<Holder> found = holder(images, *guess, address)) return found;
  }
  const std::uint32_t count = images._dyld_image_count();
  for (std::uint32_t i = 0; i < count; ++i) {
    if (const std::optional<Holder> found = holder(images, i, address)) return found;
  }
  return std::nullopt;
}

void lookUp(Images& images, std::uint64_t address, qbv_symbol_record& record) {
  record = {};
  const std::optional<Holder> held = holderOf(images, address);
  if (!held) return;
  const auto [index, plain, slide] = *held;
  const void* const header = images.headerWithSymbols(index);
  const ImageReader image(images, index, header != nullptr ? header : plain);
  const ImageReader::Tables tables = image.tables();
  const std::uint64_t base = tables.linkeditOffset + slide;
  if (base == 0) return;
  qbv_symbol_record found{images._dyld_get_image_name(index), images.loadAddress(index), nullptr, 0};
  if (const std::optional<ImageSymbol> symbol = image.nearestSymbol(base, address - slide, tables.sorted)) {
    found.symbol_address = symbol->value + slide;
    found.symbol_name = symbol->name;
  }
  // Another image may have taken the place meanwhile: then what was read belongs to two.
  if (images._dyld_get_image_header(index) == plain) record = found;
}

}  // namespace

void symbolicate(Images& images, const std::uint64_t* addresses, qbv_symbol_record* records, int count,
                 int skipped) {
  if (count <= 0) return;
  images._dyld_image_count();  // takes in what was loaded or closed, so that no guess is stale
  for (int i = 0; i < count; ++i) {
    const bool programCounter = i == 0 && skipped == 0;
    const std::uint64_t call = (addresses[i] & ~std::uint64_t{3}) - 1;
    lookUp(images, programCounter ? addresses[i] : call, records[i]);
  }
}

}  // namespace qbv
