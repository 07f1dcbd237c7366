#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "vitalscope/platform/linux/image_description.h"
#include "vitalscope/platform/linux/image_names.h"
#include "vitalscope/platform/linux/images.h"
#include "vitalscope/platform/linux/loader_list.h"

namespace qbv::linux_backend {

namespace {

// Address space is set aside for this many; pages are committed as places are used.
constexpr std::uint32_t kMostImages = 65536;

}  // namespace

struct LoadedImages::Scan {
  LoadedImages* list = nullptr;
  std::unique_lock<std::mutex> lock;
  std::uint64_t adds = 0;
  std::uint64_t subs = 0;
  std::uint32_t next = 0;  // the place that the next object probably has
  LoadedImage* firstPending = nullptr;
  LoadedImage* lastPending = nullptr;
  bool first = true;
};

LoadedImages::LoadedImages()
    : places_(static_cast<Place*>(takePages(kMostImages * sizeof(Place)))), ranges_(kMostImages) {
  takeIn();
}

std::uint32_t LoadedImages::_dyld_image_count() {
  const LoaderCounters now = loaderCounters();
  if (now.adds != adds_.load(std::memory_order_acquire) ||
      now.subs != subs_.load(std::memory_order_acquire)) {
    takeIn();
  }
  return count_.load(std::memory_order_acquire);
}

void LoadedImages::takeIn() {
  Scan scan;
  scan.list = this;
  visitLoadedImages(takeInObject, &scan);
  if (scan.lock.owns_lock()) settle(scan);
}

int LoadedImages::takeInObject(dl_phdr_info* info, std::size_t, void* argument) {
  Scan& scan = *static_cast<Scan*>(argument);
  if (scan.first) {
    scan.lock = std::unique_lock(scan.list->scanning_);
    ++scan.list->scans_;
    scan.adds = info->dlpi_adds;
    scan.subs = info->dlpi_subs;
  }
  scan.list->meet(scan, *info);
  scan.first = false;
  return 0;
}

bool LoadedImage::is(const dl_phdr_info& info, const ElfObject& found, bool first) const {
  return object.slide == found.slide && object.mapped.start == found.mapped.start &&
         object.layout == found.layout && object.buildId == found.buildId && executable == first &&
         (executable || name == loaderName(info));
}

void LoadedImages::meet(Scan& scan, const dl_phdr_info& info) {
  const ElfObject object = readLoadedObject(info);
  if (object.mapped.end == 0 || places_ == nullptr) return;
  LoadedImage* image = placed(scan, info, object);
  if (image == nullptr) {
    image = all_;
    while (image != nullptr && (image->scan == scans_ || !image->is(info, object, scan.first)))
      image = image->older;
    if (image == nullptr) image = make(info, object, scan.first);
    if (image == nullptr) return;
    image->pending = nullptr;
    (scan.lastPending != nullptr ? scan.lastPending->pending : scan.firstPending) = image;
    scan.lastPending = image;
  }
  image->scan = scans_;
}

// The loader reports objects in the order of the list, new ones at the end.
LoadedImage* LoadedImages::placed(Scan& scan, const dl_phdr_info& info, const ElfObject& object) {
  const std::uint32_t count = count_.load(std::memory_order_relaxed);
  for (std::uint32_t step = 0; step < count; ++step) {
    const std::uint32_t index = (scan.next + step) % count;
    LoadedImage* const image = places_[index].load(std::memory_order_relaxed);
    if (image == nullptr || !image->is(info, object, scan.first)) continue;
    scan.next = index + 1;
    return image;
  }
  return nullptr;
}

const char* LoadedImages::keep(std::string_view text) {
  char* const kept = static_cast<char*>(arena_.take(text.size() + 1));
  if (kept != nullptr) *std::ranges::copy(text, kept).out = '\0';
  return kept;
}

LoadedImage* LoadedImages::make(const dl_phdr_info& info, const ElfObject& object, bool executable) {
  char path[PATH_MAX] = "";
  if (executable) executablePath(path);
  const char* const name = keep(executable ? std::string_view(path) : loaderName(info));
  const std::size_t size = descriptionSize(object, {});
  auto* const block = static_cast<std::byte*>(arena_.take(size));
  void* const memory = arena_.take(sizeof(LoadedImage));
  if (name == nullptr || block == nullptr || memory == nullptr) return nullptr;
  auto* const image = new (memory) LoadedImage;
  image->object = object;
  image->executable = executable;
  image->name = name;
  const char* const opened = executable ? executableFile() : nullptr;
  image->file = opened != nullptr ? opened : std::strchr(name, '/') != nullptr ? name : nullptr;
  writeDescription(object, executable, {block, size}, {});
  image->plain = {block, size};
  image->older = all_;
  return all_ = image;
}

// First the places of what is gone become empty, then what is new takes empty places and new ones.
void LoadedImages::settle(Scan& scan) {
  std::uint32_t count = count_.load(std::memory_order_relaxed);
  std::uint64_t gone = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    LoadedImage* const image = places_[i].load(std::memory_order_relaxed);
    if (image == nullptr || image->scan == scans_) continue;
    places_[i].store(nullptr, std::memory_order_release);
    ++gone;
  }
  // More were closed than are missing: some have come back to where they were, nobody knows which.
  for (std::uint32_t i = 0; i < count && scan.subs - subs_.load() > gone; ++i) {
    LoadedImage* const image = at(i);
    if (image != nullptr && !image->executable) beginArrival(*image);
  }
  std::uint32_t empty = 0;
  for (LoadedImage* image = scan.firstPending; image != nullptr; image = image->pending) {
    while (empty < count && places_[empty].load(std::memory_order_relaxed) != nullptr) ++empty;
    if (empty == kMostImages) break;
    beginArrival(*image);
    places_[empty].store(image, std::memory_order_release);
    if (empty == count) count_.store(++count, std::memory_order_release);
  }
  publishRanges(count);
  adds_.store(scan.adds, std::memory_order_release);
  subs_.store(scan.subs, std::memory_order_release);
}

void LoadedImages::beginArrival(LoadedImage& image) {
  image.relocated.store(false, std::memory_order_relaxed);
  image.arrived.store(scans_, std::memory_order_relaxed);
}

void LoadedImages::publishRanges(std::uint32_t count) {
  static_cast<void>(sorting_.resize(0));
  for (std::uint32_t i = 0; i < count; ++i) {
    const LoadedImage* const image = places_[i].load(std::memory_order_relaxed);
    if (image == nullptr) continue;
    if (!sorting_.push({image->object.mapped.start, image->object.mapped.end, i})) break;
  }
  ranges_.publish({sorting_.begin(), sorting_.size()});
}

}  // namespace qbv::linux_backend
