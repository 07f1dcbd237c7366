// A malloc_logger that remembers what one thread does.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/allocator.h"

namespace qbv::tests {

struct HeapEvent {
  std::uint32_t type = 0;
  std::uintptr_t argument2 = 0;
  std::uintptr_t argument3 = 0;
  std::uintptr_t result = 0;
  bool operator==(const HeapEvent&) const = default;
};

// Installed from construction to destruction; takes no memory itself. One at a time.
class HeapEvents {
 public:
  HeapEvents() {
    count = 0;
    listening = true;
    malloc_logger = log;
  }
  ~HeapEvents() {
    malloc_logger = nullptr;
    listening = false;
  }
  HeapEvents(const HeapEvents&) = delete;
  HeapEvents& operator=(const HeapEvents&) = delete;

  static malloc_logger_t* logger() { return log; }
  static std::size_t size() { return count; }
  // The only event since the last call; type 0 when there was none or more than one.
  static HeapEvent only() {
    const HeapEvent event = count == 1 ? events[0] : HeapEvent{};
    count = 0;
    return event;
  }

 private:
  static void log(std::uint32_t type, std::uintptr_t zone, std::uintptr_t argument2, std::uintptr_t argument3,
                  std::uintptr_t result, std::uint32_t framesToSkip) {
    if (!listening || zone == 0 || framesToSkip != 1) return;
    if (count < events.size()) events[count] = {type, argument2, argument3, result};
    ++count;
  }

  static inline thread_local bool listening = false;
  static inline std::array<HeapEvent, 64> events;
  static inline std::size_t count = 0;
};

}  // namespace qbv::tests
