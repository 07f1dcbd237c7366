// A zone that counts and, when asked to, has no more memory.
#pragma once

#include <cstddef>
#include <mutex>
#include <unordered_map>

#include "vitalscope/platform/zone.h"

namespace qbv {

// Any thread. Every block is one of the process's heap, so that a memory checker sees each overrun; freeing
// what is not a live block of this zone ends the process.
class ScriptedZone final : public MallocZone {
 public:
  ScriptedZone() = default;
  ~ScriptedZone() override;  // frees what is left
  ScriptedZone(const ScriptedZone&) = delete;
  ScriptedZone& operator=(const ScriptedZone&) = delete;

  void* malloc(std::size_t size) noexcept override;
  void* calloc(std::size_t count, std::size_t size) noexcept override;
  void free(void* pointer) noexcept override;

  // After `skip` further good allocations all fail, until supplyAgain().
  void failAfter(std::size_t skip);
  void supplyAgain();

  std::size_t liveBlocks() const;
  std::size_t liveBytes() const;
  std::size_t allocations() const;  // good ones, ever

 private:
  void* take(std::size_t size, bool zeroed);

  mutable std::mutex mutex_;
  std::unordered_map<void*, std::size_t> blocks_;
  std::size_t liveBytes_ = 0;
  std::size_t allocations_ = 0;
  std::size_t goodOnesLeft_ = static_cast<std::size_t>(-1);
};

}  // namespace qbv
