// The part of the image list that is about symbol pointer slots.
#include <sys/auxv.h>
#include <sys/mman.h>

#include <cerrno>

#include "vitalscope/platform/linux/elf_definition.h"
#include "vitalscope/platform/linux/elf_slots.h"
#include "vitalscope/platform/linux/image_slots.h"
#include "vitalscope/platform/linux/images.h"
#include "vitalscope/platform/linux/loader_list.h"
#include "vitalscope/platform/linux/pages.h"

namespace qbv::linux_backend {

namespace {

constexpr int kHoldAttempts = 16;

// What the loader passes to a function that chooses another one for this machine.
std::uint64_t askResolver(std::uint64_t resolver) {
#if defined(__aarch64__)
  struct {
    unsigned long size, hwcap, hwcap2;
  } const machine{sizeof machine, getauxval(AT_HWCAP), getauxval(AT_HWCAP2)};
  constexpr std::uint64_t kMore = std::uint64_t{1} << 62;
  return reinterpret_cast<std::uint64_t (*)(std::uint64_t, const void*)>(resolver)(machine.hwcap | kMore,
                                                                                   &machine);
#else
  return reinterpret_cast<std::uint64_t (*)()>(resolver)();
#endif
}

struct Holding {
  const std::function<bool(const dl_phdr_info&)>& use;
  bool done = false;
};

// False when the list has changed since it was taken in.
bool holdList(const std::function<bool(const dl_phdr_info&)>& use) {
  Holding holding{use};
  visitLoadedImages(
      [](dl_phdr_info* info, std::size_t, void* argument) {
        auto& held = *static_cast<Holding*>(argument);
        held.done = held.use(*info);
        return 1;
      },
      &holding);
  return holding.done;
}

}  // namespace

bool LoadedImages::hold(const std::function<void()>& use) {
  for (int attempt = 0; attempt < kHoldAttempts; ++attempt) {
    _dyld_image_count();
    const bool current = holdList([&](const dl_phdr_info& now) {
      if (now.dlpi_subs != subs_.load(std::memory_order_acquire)) return false;
      use();
      return true;
    });
    if (current) return true;
  }
  return false;
}

bool LoadedImages::whileLoaded(const void* header, const std::function<void(std::uint32_t)>& use) {
  const std::optional<std::uint32_t> index = placeOf(header);
  if (!index) return false;
  bool used = false;
  hold([&] {
    const LoadedImage* const image = at(*index);
    // Taking the list in may just have shown that it was closed and is being loaded again.
    used = image != nullptr && image->has(header) && image->relocated.load(std::memory_order_acquire);
    if (used) use(*index);
  });
  return used;
}

void* LoadedImages::takeForSlots(std::size_t size) {
  const std::lock_guard lock(takingForSlots_);
  void* const taken = slotArena_.take(size);
#if defined(MADV_POPULATE_WRITE)
  // All of it will be written at once: cheaper in one go than page by page.
  const std::uint64_t start = startOfPage(reinterpret_cast<std::uint64_t>(taken));
  const std::uint64_t end = startOfPage(reinterpret_cast<std::uint64_t>(taken) + size);
  if (taken != nullptr && end > start)
    madvise(reinterpret_cast<void*>(start), end - start, MADV_POPULATE_WRITE);
#endif
  return taken;
}

// Two threads may both build one; then one of the two is never used.
const std::byte* LoadedImages::buildSlots(LoadedImage& image) {
  const std::span<const std::byte> block = buildImageSlots(
      image.object, image.executable, [this](std::size_t size) { return takeForSlots(size); });
  if (block.empty()) return nullptr;
  const std::byte* present = nullptr;
  image.slotsSize.store(block.size(), std::memory_order_relaxed);
  return image.slots.compare_exchange_strong(present, block.data()) ? block.data() : present;
}

const void* LoadedImages::headerWithSlots(std::uint32_t index) {
  LoadedImage* const image = at(index);
  if (image == nullptr || !image->relocated.load(std::memory_order_acquire)) return nullptr;
  const std::byte* header = image->slots.load(std::memory_order_acquire);
  if (header != nullptr) return header;
  hold([&] {
    if (at(index) == image) header = buildSlots(*image);
  });
  return header;
}

bool LoadedImage::has(const void* header) const {
  return header == plain.data() || header == slots.load(std::memory_order_acquire) ||
         header == full.load(std::memory_order_acquire);
}

std::optional<std::uint32_t> LoadedImages::placeOf(const void* header) {
  const std::uint32_t count = _dyld_image_count();
  for (std::uint32_t i = 0; i < count && header != nullptr; ++i) {
    const LoadedImage* const image = at(i);
    if (image != nullptr && image->has(header)) return i;
  }
  return std::nullopt;
}

bool LoadedImages::holdsData(std::uint32_t index, std::uint64_t address, std::size_t size) {
  const LoadedImage* const image = at(index);
  if (image == nullptr) return false;
  const ElfObject& object = image->object;
  for (std::uint32_t i = 0; i < object.dataCount; ++i) {
    const std::uint64_t start = object.slide + object.data[i].address;
    if (AddressRange{start, start + object.data[i].size}.contains(address, size)) return true;
  }
  return false;
}

// Objects are asked in the order in which they were loaded, as the loader does for what the program started
// with.
std::uint64_t LoadedImages::functionBehind(std::uint32_t index, const char* name, std::uint64_t slot,
                                           std::uint64_t value) {
  const LoadedImage* const image = at(index);
  const LoadedImage* const executable = at(0);
  if (image == nullptr || executable == nullptr) return value;
  const bool standIn = executable->object.code.contains(value) &&
                       isStandInFor(HeldMemory(executable->object.mapped), executable->object, name, value);
  if (!standIn && !ElfSlots(image->object).isBindingStub(slot, value)) return value;
  std::optional<Definition> found;
  const std::uint32_t count = count_.load(std::memory_order_acquire);
  for (std::uint32_t i = 0; i < count && (!found || found->oldVersion); ++i) {
    const LoadedImage* const other = at(i);
    if (other == nullptr) continue;
    const auto here = definitionIn(HeldMemory(other->object.mapped), other->object, name);
    if (here && (!found || !here->oldVersion)) found = here;
  }
  if (!found) return value;
  return found->resolver ? askResolver(found->address) : found->address;
}

int LoadedImages::vm_protect(std::uint64_t address, std::uint64_t size, bool, int protection) {
  const std::uint64_t start = startOfPage(address);
  const int mode = ((protection & VM_PROT_READ) != 0 ? PROT_READ : 0) |
                   ((protection & VM_PROT_WRITE) != 0 ? PROT_WRITE : 0);
  return mprotect(reinterpret_cast<void*>(start), address + size - start, mode) == 0 ? 0 : errno;
}

}  // namespace qbv::linux_backend
