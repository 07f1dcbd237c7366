// Runs of the message-send hook, its settings and results.
#include "vitalscope/profiler/message_hook_records.h"
#include "vitalscope/profiler/message_hook_state.h"
#include "vitalscope/profiler/qb_symbol_rebind.h"

using namespace qbv::message_hook;

void* orig_objc_msgSend = nullptr;
#if defined(__x86_64__)
void* orig_objc_msgSend_stret = nullptr;
#endif

namespace {

template <class Function>
void rebind(const char* name, Function* replacement, void** replaced) {
  const qb_rebinding request{name, reinterpret_cast<void*>(replacement), replaced};
  qb_rebind_symbols(&request);
}

void restore(const char* name, void* original) {
  if (original == nullptr) return;  // no run has begun
  const qb_rebinding request{name, original, nullptr};
  qb_rebind_symbols(&request);
}

}  // namespace

void dtp_hook_begin() {
  settings.stopped.store(false);
  rebind("objc_msgSend", hook_objc_msgSend, &orig_objc_msgSend);
#if defined(__x86_64__)
  rebind("objc_msgSend_stret", hook_objc_msgSend_stret, &orig_objc_msgSend_stret);
#endif
}

void dtp_hook_end() {
  settings.stopped.store(true);
  restore("objc_msgSend", orig_objc_msgSend);
#if defined(__x86_64__)
  restore("objc_msgSend_stret", orig_objc_msgSend_stret);
#endif
  records.awaitQuiet();
}

void dtp_set_min_time(std::uint64_t microseconds) {
  settings.minimumTime.store(microseconds);
}

void dtp_set_max_depth(std::int32_t depth) {
  settings.maximumDepth.store(depth);
}

const dtp_call_record* dtp_get_call_records(std::int32_t* count) {
  return records.read(count);
}

void dtp_clear_call_records() {
  records.clear();
}
