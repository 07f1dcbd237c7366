// The loaded ELF objects of the process as a list of images.
#pragma once

#include <link.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>

#include "vitalscope/platform/images.h"
#include "vitalscope/platform/linux/elf_object.h"
#include "vitalscope/platform/linux/image_ranges.h"
#include "vitalscope/platform/linux/pages.h"

namespace qbv::linux_backend {

// One object as long as it is, or was, loaded at one address. Never freed: the same file at the same address
// finds its old description again.
struct LoadedImage {
  // Whether one of its descriptions begins here.
  bool has(const void* header) const;
  // Whether the loader's entry (the executable is its first) is this image.
  bool is(const dl_phdr_info& info, const ElfObject& found, bool first) const;

  ElfObject object;
  const char* name = nullptr;  // what reports show
  const char* file = nullptr;  // what to open for its symbols, null for none
  bool executable = false;
  std::span<const std::byte> plain;             // header and commands
  std::atomic<const std::byte*> full{nullptr};  // the same with symbols, once built
  std::atomic<std::size_t> fullSize{0};
  std::mutex building;
  std::atomic<const std::byte*> slots{nullptr};  // the same with symbol pointer slots, once built
  std::atomic<std::size_t> slotsSize{0};
  std::atomic<bool> relocated{false};  // the loader is through with it
  std::uint32_t announced = 0;  // bit per callback that has been told (under announcing_), of this arrival:
  std::uint64_t announcedArrival = 0;
  LoadedImage* older = nullptr;           // all images ever seen
  LoadedImage* pending = nullptr;         // found by the present scan, without a place yet
  std::uint64_t scan = 0;                 // the last scan that found it
  std::atomic<std::uint64_t> arrived{0};  // the scan that gave it its place
};

// Takes the loader's lock for the microseconds of a scan, and the lock of the list inside it, never the other
// way round: every operation but headerWithSymbols may run inside a dl_iterate_phdr callback. Never asks the
// loader to look anything up.
class LoadedImages final : public Images {
 public:
  LoadedImages();

  std::uint32_t _dyld_image_count() override;
  const void* _dyld_get_image_header(std::uint32_t index) override;
  std::intptr_t _dyld_get_image_vmaddr_slide(std::uint32_t index) override;
  const char* _dyld_get_image_name(std::uint32_t index) override;
  std::uint64_t loadAddress(std::uint32_t index) override;
  const void* headerWithSymbols(std::uint32_t index) override;
  bool readable(std::uint32_t index, const void* address, std::size_t size) override;
  std::optional<std::uint32_t> likelyImage(std::uint64_t address) override;
  void _dyld_register_func_for_add_image(AddImageCallback callback) override;
  const void* headerWithSlots(std::uint32_t index) override;
  std::uint32_t settledImageCount() override;
  bool whileLoaded(const void* header, const std::function<void(std::uint32_t)>& use) override;
  bool holdsData(std::uint32_t index, std::uint64_t address, std::size_t size) override;
  std::uint64_t functionBehind(std::uint32_t index, const char* name, std::uint64_t slot,
                               std::uint64_t value) override;
  int vm_protect(std::uint64_t address, std::uint64_t size, bool setMaximum, int protection) override;

  // Looks closely for arrivals for a second from now. Takes microseconds; any thread.
  void expectArrivals();

 private:
  struct Scan;
  using Place = std::atomic<LoadedImage*>;

  void takeIn();
  static int takeInObject(dl_phdr_info* info, std::size_t size, void* scan);
  void meet(Scan& scan, const dl_phdr_info& info);
  LoadedImage* placed(Scan& scan, const dl_phdr_info& info, const ElfObject& object);
  const char* keep(std::string_view text);
  LoadedImage* make(const dl_phdr_info& info, const ElfObject& object, bool executable);
  void settle(Scan& scan);
  void beginArrival(LoadedImage& image);
  void publishRanges(std::uint32_t count);

  LoadedImage* at(std::uint32_t index) const;
  const std::byte* build(LoadedImage& image, std::uint32_t index);
  void* takeForSlots(std::size_t size);
  const std::byte* buildSlots(LoadedImage& image);

  std::optional<std::uint32_t> placeOf(const void* header);
  bool hold(const std::function<void()>& use);

  bool sawArrival();
  void startWatching();
  void awaitLoader();
  void announce();
  void watchClosely();
  void watchFromTimeToTime();

  Place* places_ = nullptr;
  std::atomic<std::uint32_t> count_{0};
  std::atomic<std::uint64_t> adds_{0};
  std::atomic<std::uint64_t> subs_{0};
  ImageRanges ranges_;

  std::mutex takingForSlots_;
  PageArena slotArena_;

  static constexpr std::size_t kMostCallbacks = 32;
  std::mutex announcing_;
  std::array<AddImageCallback, kMostCallbacks> callbacks_{};
  std::size_t callbackCount_ = 0;
  std::atomic<std::uint64_t> arrivalsSeen_{0};
  std::mutex watchMutex_;
  std::condition_variable watchRenewed_;
  std::int64_t watchUntil_ = 0;  // monotonic nanoseconds
  std::atomic_flag watching_;

  std::mutex scanning_;  // guards what follows, and the writing of the above
  PageArena arena_;
  PageVector<ImageRange> sorting_;
  LoadedImage* all_ = nullptr;
  std::uint64_t scans_ = 0;
};

// A dlopen is about to begin on this thread: what it brings is looked for closely, if anybody has registered
// for images. Takes microseconds; any thread.
void expectImageArrivals();

}  // namespace qbv::linux_backend
