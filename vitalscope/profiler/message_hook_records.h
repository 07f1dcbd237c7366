// The finished calls of the message-send hook.
#pragma once

#include <atomic>
#include <cstdint>

#include "vitalscope/profiler/QBMessageSendHook.h"

namespace qbv::message_hook {

// The main thread adds, others read, clear and wait. Grows by 1024 records.
class Records {
 public:
  constexpr Records() = default;

  // Main thread. Without memory, while a run is stopped or the records are being cleared, the record is lost.
  // So whoever has stopped the run and waited finds nobody adding.
  void append(const dtp_call_record& record);
  // Returns when no record is being added, and those added before are complete. At once on the main thread.
  void awaitQuiet();
  const dtp_call_record* read(std::int32_t* count) const;
  void clear();

 private:
  bool makeRoom();

  std::atomic<dtp_call_record*> array_{nullptr};
  std::atomic<std::int32_t> count_{0};
  std::int32_t capacity_ = 0;
  std::atomic<bool> adding_{false};
  std::atomic<bool> held_{false};
};
[[gnu::visibility("hidden")]] extern constinit Records records;

}  // namespace qbv::message_hook
