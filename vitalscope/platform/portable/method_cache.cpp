#include "vitalscope/platform/portable/method_cache.h"

#include <algorithm>
#include <cstdint>
#include <new>

#include "vitalscope/platform/portable/class_table.h"
#include "vitalscope/platform/portable/selectors.h"

namespace qbv {

namespace {

using Place = MethodCache::Place;

constexpr std::size_t kSmallest = 8;  // first places

constexpr objc_selector noSelector{nullptr};
// What free places hold. Its selector is no message's.
constinit objc_method nothing{&noSelector, nullptr, nullptr, nullptr};

std::size_t firstPlaces(const MethodCache& cache) noexcept {
  return cache.mask / sizeof(Place) + 1;
}
std::size_t placeCount(const MethodCache& cache) noexcept {
  return 2 * firstPlaces(cache);
}

const Place* firstPlace(const MethodCache& cache, SEL selector) noexcept {
  return cache.places + (reinterpret_cast<std::uintptr_t>(selector) & cache.mask) / sizeof(Place);
}

// The selector's place, or the free one in which it would be put.
Place& placeFor(MethodCache& cache, SEL selector) noexcept {
  const Place* place = firstPlace(cache, selector);
  for (;; ++place) {
    const objc_method* const method = place->load(std::memory_order_relaxed);
    if (method == &nothing || method->selector == selector) return const_cast<Place&>(*place);
  }
}

std::size_t methodCount(const MethodCache& cache) noexcept {
  return placeCount(cache) -
         static_cast<std::size_t>(std::count_if(cache.places, cache.places + placeCount(cache),
                                                [](const Place& place) { return place.load() == &nothing; }));
}

bool hasRoom(const MethodCache& cache) noexcept {
  return &cache != &MethodCache::empty && 4 * (methodCount(cache) + 1) <= 3 * firstPlaces(cache);
}

}  // namespace

// What the message send believes of these types.
static_assert(offsetof(objc_class, isa) == 0 && offsetof(objc_class, cache) == 8);
static_assert(offsetof(MethodCache, mask) == 0 && offsetof(MethodCache, places) == 8 && sizeof(Place) == 8);
static_assert(offsetof(objc_method, selector) == 0 && offsetof(objc_method, implementation) == 8);
static_assert(sizeof(objc_selector) == 8);

constinit MethodCache MethodCache::empty{0, {&nothing}};

objc_method* MethodCache::find(SEL selector) const noexcept {
  for (const Place* place = firstPlace(*this, selector);; ++place) {
    objc_method* const method = place->load(std::memory_order_acquire);
    if (method == &nothing) return nullptr;
    if (method->selector == selector) return method;
  }
}

void MethodCaches::put(std::atomic<MethodCache*>& cache, objc_method* method) noexcept {
  MethodCache* present = cache.load(std::memory_order_relaxed);
  if (present->find(method->selector) == nullptr && !hasRoom(*present)) {
    present = grown(*present);
    if (present == nullptr) return;
    placeFor(*present, method->selector).store(method, std::memory_order_release);
    cache.store(present, std::memory_order_release);
    return;
  }
  placeFor(*present, method->selector).store(method, std::memory_order_release);
}

MethodCache* MethodCaches::grown(const MethodCache& present) noexcept {
  if (&present == &MethodCache::empty) return make(kSmallest);
  MethodCache* const larger = make(2 * firstPlaces(present));
  if (larger == nullptr) return nullptr;
  for (std::size_t i = 0; i < placeCount(present); ++i) {
    objc_method* const method = present.places[i].load(std::memory_order_relaxed);
    if (method != &nothing) placeFor(*larger, method->selector).store(method, std::memory_order_relaxed);
  }
  return larger;
}

MethodCache* MethodCaches::make(std::size_t firstPlaces) noexcept try {
  const std::size_t places = 2 * firstPlaces;
  auto memory =
      std::make_unique_for_overwrite<std::byte[]>(offsetof(MethodCache, places) + places * sizeof(Place));
  auto* const cache = reinterpret_cast<MethodCache*>(memory.get());
  cache->mask = (firstPlaces - 1) * sizeof(Place);
  for (std::size_t i = 0; i < places; ++i) new (cache->places + i) Place(&nothing);
  made_.push_back(std::move(memory));
  return cache;
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace qbv
