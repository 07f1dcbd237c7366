// The part of the image list that tells others about images as they arrive.
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <utility>
#include <vector>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/images.h"
#include "vitalscope/platform/linux/loader_list.h"

namespace qbv::linux_backend {

namespace {

constexpr std::int64_t kCloseWatch = 1'000'000'000;  // ns after a dlopen began
constexpr std::uint64_t kTimeToTime = 250'000'000;   // ns, for images that no dlopen of the program's
constexpr std::int64_t kShortestNap = 50'000, kLongestNap = 2'000'000;  // ns

constinit std::atomic<bool> gRegistered{false};

std::int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// The loader keeps its lock from before it maps an object until the constructors have run; this look-up takes
// it.
void passTheLoader() {
  Dl_info info;
  static_cast<void>(::dladdr(reinterpret_cast<const void*>(&now), &info));
}

}  // namespace

bool LoadedImages::sawArrival() {
  const std::uint64_t adds = loaderCounters().adds;
  return arrivalsSeen_.exchange(adds, std::memory_order_relaxed) != adds;
}

// An image that was on the list before the loader's lock was free has been relocated since. On the thread
// that runs a constructor the lock is no obstacle, and the image is relocated by then.
void LoadedImages::awaitLoader() {
  struct Arrival {
    LoadedImage* image;
    std::uint64_t arrived;
  };
  std::vector<Arrival> waiting;
  const std::uint32_t count = _dyld_image_count();
  for (std::uint32_t i = 0; i < count; ++i) {
    LoadedImage* const image = at(i);
    if (image != nullptr && !image->relocated.load(std::memory_order_acquire))
      waiting.push_back({image, image->arrived.load(std::memory_order_relaxed)});
  }
  if (waiting.empty()) return;
  passTheLoader();
  const std::lock_guard lock(scanning_);
  for (const Arrival& arrival : waiting) {
    if (arrival.image->arrived.load(std::memory_order_relaxed) == arrival.arrived)
      arrival.image->relocated.store(true, std::memory_order_release);
  }
}

void LoadedImages::announce() {
  const std::lock_guard lock(announcing_);
  const std::uint32_t count = _dyld_image_count();
  for (std::uint32_t i = 0; i < count; ++i) {
    LoadedImage* const image = at(i);
    const auto* const header = static_cast<const mach_header_64*>(headerWithSlots(i));
    if (header == nullptr) continue;
    const std::uint64_t arrival = image->arrived.load(std::memory_order_relaxed);
    if (std::exchange(image->announcedArrival, arrival) != arrival) image->announced = 0;
    for (std::size_t k = 0; k < callbackCount_; ++k) {
      const std::uint32_t bit = std::uint32_t{1} << k;
      if ((image->announced & bit) != 0) continue;
      image->announced |= bit;
      callbacks_[k](header, static_cast<std::intptr_t>(image->object.slide));
    }
  }
}

std::uint32_t LoadedImages::settledImageCount() {
  awaitLoader();
  return count_.load(std::memory_order_acquire);
}

void LoadedImages::_dyld_register_func_for_add_image(AddImageCallback callback) {
  sawArrival();
  awaitLoader();
  {
    const std::lock_guard lock(announcing_);
    if (callbackCount_ == kMostCallbacks) return;
    callbacks_[callbackCount_++] = callback;
  }
  announce();
  if (gRegistered.exchange(true)) return;
  watchFromTimeToTime();
}

void LoadedImages::watchFromTimeToTime() {
  Dispatch& queues = dispatch();
  static DispatchTimerRef* const timer =
      new DispatchTimerRef(queues.dispatch_source_create(queues.dispatch_get_global_queue()));
  queues.dispatch_source_set_timer(*timer, kTimeToTime, kTimeToTime / 2);
  queues.dispatch_source_set_event_handler(*timer, [this] {
    if (isForkedChild() || !sawArrival()) return;
    awaitLoader();
    announce();
  });
  queues.dispatch_resume(*timer);
}

void LoadedImages::expectArrivals() {
  {
    const std::lock_guard lock(watchMutex_);
    watchUntil_ = now() + kCloseWatch;
  }
  watchRenewed_.notify_one();
  startWatching();
}

void LoadedImages::startWatching() {
  if (watching_.test_and_set()) return;
  dispatch().dispatch_async(dispatch().dispatch_get_global_queue(), [this] { watchClosely(); });
}

void LoadedImages::watchClosely() {
  std::unique_lock lock(watchMutex_);
  std::int64_t until = watchUntil_;
  for (std::int64_t nap = kShortestNap; now() < until; until = watchUntil_) {
    watchRenewed_.wait_for(lock, std::chrono::nanoseconds(nap), [&] { return watchUntil_ != until; });
    nap = watchUntil_ != until ? kShortestNap : std::min(nap + nap / 8, kLongestNap);
    if (!sawArrival()) continue;
    lock.unlock();
    awaitLoader();
    announce();
    lock.lock();
  }
  lock.unlock();
  watching_.clear();
  lock.lock();
  const bool again = now() < watchUntil_;
  lock.unlock();
  if (again) startWatching();
}

void expectImageArrivals() {
  if (!gRegistered.load(std::memory_order_relaxed) || isForkedChild()) return;
  static_cast<LoadedImages&>(images()).expectArrivals();
}

}  // namespace qbv::linux_backend
