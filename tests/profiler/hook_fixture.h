// Sends through the trampoline as a rebound slot would make them, with a clock that the test turns.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "vitalscope/platform/message.h"
#include "vitalscope/platform/portable/class_table.h"
#include "vitalscope/profiler/message_hook_state.h"

namespace qbv::tests {

class HookFixture : public ::testing::Test {
 protected:
  HookFixture() {
    orig_objc_msgSend = reinterpret_cast<void*>(objc_msgSend);
#if defined(__x86_64__)
    orig_objc_msgSend_stret = reinterpret_cast<void*>(objc_msgSend_stret);
#endif
    message_hook::settings.clock = readClock;
    dtp_set_min_time(0);
  }

  static int readClock(TimeOfDay* time, void*) {
    *time = {now / 1'000'000, now % 1'000'000};
    now += step;
    return 0;
  }
  static inline std::int64_t now = 1'700'000'000'000'000;  // microseconds
  static inline std::int64_t step = 0;                     // by which each reading moves it on

  template <class R = void, class... Args>
  static R hooked(id receiver, SEL selector, Args... args) {
    return reinterpret_cast<R (*)(id, SEL, Args...)>(reinterpret_cast<qbv::IMP>(hook_objc_msgSend))(
        receiver, selector, args...);
  }

  static std::vector<dtp_call_record> recorded() {
    std::int32_t count = -1;
    const dtp_call_record* const first = dtp_get_call_records(&count);
    return {first, first + count};
  }
  static int depthNow() {
    return dtp_own_stack->index() + 1;
  }

  ClassTable table;
};

}  // namespace qbv::tests
