// What a class knows of its methods, its own and inherited ones, in the shape in which the message send finds
// them.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "vitalscope/platform/objc.h"

namespace qbv {

// An open hash table of methods by selector. A method's first place is its selector's address modulo the
// size; if that is taken it stands further on. Free places hold a method without implementation; twice as
// many places as the mask reaches make sure that one always follows.
//
// Readers take no lock. A place once given to a selector keeps it, and only ever changes from one method of
// that selector to another; so a reader finds either. A cache that was replaced by a larger one stays as it
// is until the table goes.
struct MethodCache {
  using Place = std::atomic<objc_method*>;

  std::size_t mask;  // number of first places, less one, times 8: what an address is masked with
  Place places[1];   // really 2 * (mask / 8 + 1), but one in the empty cache

  static MethodCache empty;
  // The method of that selector; null when the cache has none.
  objc_method* find(SEL selector) const noexcept;
};

// Makes caches and owns them. One thread at a time, while any number read.
class MethodCaches {
 public:
  MethodCaches() = default;
  ~MethodCaches() = default;
  MethodCaches(const MethodCaches&) = delete;
  MethodCaches& operator=(const MethodCaches&) = delete;

  // Puts the method into the cache, replacing the one of its selector; the cache is replaced by a larger one
  // when it is three quarters full. Without memory nothing changes.
  void put(std::atomic<MethodCache*>& cache, objc_method* method) noexcept;

 private:
  MethodCache* make(std::size_t firstPlaces) noexcept;
  MethodCache* grown(const MethodCache& present) noexcept;

  std::vector<std::unique_ptr<std::byte[]>> made_;
};

}  // namespace qbv
