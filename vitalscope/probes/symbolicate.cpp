#include "vitalscope/probes/symbolicate.h"

#include <optional>

#include "vitalscope/probes/image_reader.h"

namespace qbv {

namespace {

std::uint64_t slideOf(Images& images, std::uint32_t index) {
  return static_cast<std::uint64_t>(images._dyld_get_image_vmaddr_slide(index));
}

bool holds(Images& images, std::uint32_t index, std::uint64_t address) {
  const ImageReader image(images, index, images._dyld_get_image_header(index));
  return image.hasSegmentAt(address - slideOf(images, index));
}

// The platform's guess counts when the image's own commands agree.
std::optional<std::uint32_t> imageOf(Images& images, std::uint64_t address) {
  const std::optional<std::uint32_t> guess = images.likelyImage(address);
  if (guess && holds(images, *guess, address)) return guess;
  const std::uint32_t count = images._dyld_image_count();
  for (std::uint32_t i = 0; i < count; ++i) {
    if (holds(images, i, address)) return i;
  }
  return std::nullopt;
}

void lookUp(Images& images, std::uint64_t address, qbv_symbol_record& record) {
  record = {};
  const std::optional<std::uint32_t> index = imageOf(images, address);
  if (!index) return;
  const std::uint64_t slide = slideOf(images, *index);
  const void* const plain = images._dyld_get_image_header(*index);
  const void* const header = images.headerWithSymbols(*index);
  const ImageReader image(images, *index, header != nullptr ? header : plain);
  const ImageReader::Tables tables = image.tables();
  const std::uint64_t base = tables.linkeditOffset + slide;
  if (base == 0) return;
  qbv_symbol_record found{images._dyld_get_image_name(*index), images.loadAddress(*index), nullptr, 0};
  if (const std::optional<ImageSymbol> symbol = image.nearestSymbol(base, address - slide, tables.sorted)) {
    found.symbol_address = symbol->value + slide;
    found.symbol_name = symbol->name;
  }
  // Another image may have taken the place meanwhile: then what was read belongs to two.
  if (images._dyld_get_image_header(*index) == plain) record = found;
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
