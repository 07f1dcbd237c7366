#include "vitalscope/platform/linux/images.h"

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/image_symbols.h"
#include "vitalscope/platform/linux/loader_list.h"

namespace qbv::linux_backend {

namespace {

constexpr int kBuildAttempts = 3;

bool within(std::span<const std::byte> block, const void* address, std::size_t size) {
  const auto start = reinterpret_cast<std::uint64_t>(block.data());
  return AddressRange{start, start + block.size()}.contains(reinterpret_cast<std::uint64_t>(address), size);
}

}  // namespace

Images& images() {
  static LoadedImages* const instance = new LoadedImages;
  return *instance;
}

LoadedImage* LoadedImages::at(std::uint32_t index) const {
  if (index >= count_.load(std::memory_order_acquire)) return nullptr;
  return places_[index].load(std::memory_order_acquire);
}

const void* LoadedImages::_dyld_get_image_header(std::uint32_t index) {
  const LoadedImage* const image = at(index);
  return image != nullptr ? image->plain.data() : nullptr;
}

std::intptr_t LoadedImages::_dyld_get_image_vmaddr_slide(std::uint32_t index) {
  const LoadedImage* const image = at(index);
  return image != nullptr ? static_cast<std::intptr_t>(image->object.slide) : 0;
}

const char* LoadedImages::_dyld_get_image_name(std::uint32_t index) {
  const LoadedImage* const image = at(index);
  return image != nullptr ? image->name : nullptr;
}

std::uint64_t LoadedImages::loadAddress(std::uint32_t index) {
  const LoadedImage* const image = at(index);
  return image != nullptr ? image->object.mapped.start : 0;
}

const void* LoadedImages::headerWithSymbols(std::uint32_t index) {
  LoadedImage* const image = at(index);
  if (image == nullptr) return nullptr;
  const std::byte* const full = image->full.load(std::memory_order_acquire);
  return full != nullptr ? full : build(*image, index);
}

bool LoadedImages::readable(std::uint32_t index, const void* address, std::size_t size) {
  const LoadedImage* const image = at(index);
  if (image == nullptr) return false;
  const std::byte* const full = image->full.load(std::memory_order_acquire);
  const std::byte* const slots = image->slots.load(std::memory_order_acquire);
  return within({full, image->fullSize.load(std::memory_order_relaxed)}, address, size) ||
         within(image->plain, address, size) ||
         within({slots, image->slotsSize.load(std::memory_order_relaxed)}, address, size);
}

std::optional<std::uint32_t> LoadedImages::likelyImage(std::uint64_t address) {
  return ranges_.find(address);
}

// The object may be closed while it is read. What was copied counts only if nothing at all was closed between
// a look that found it loaded and the end of the copying.
const std::byte* LoadedImages::build(LoadedImage& image, std::uint32_t index) {
  const std::lock_guard lock(image.building);
  for (int attempt = 0; attempt < kBuildAttempts && image.full.load() == nullptr; ++attempt) {
    const std::uint64_t removals = loaderCounters().subs;
    _dyld_image_count();
    if (at(index) != &image) break;
    std::span<const std::byte> full = buildImageSymbols(image.object, image.executable, image.file);
    if (removals != loaderCounters().subs) {
      if (!full.empty()) munmap(const_cast<std::byte*>(full.data()), full.size());
      continue;
    }
    if (full.empty()) full = image.plain;
    image.fullSize.store(full.size(), std::memory_order_relaxed);
    image.full.store(full.data(), std::memory_order_release);
  }
  const std::byte* const full = image.full.load();
  return full != nullptr ? full : image.plain.data();
}

}  // namespace qbv::linux_backend
