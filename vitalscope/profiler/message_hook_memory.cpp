// Where the message-send hook takes memory: for threads' stacks and for records.
#include <cstdlib>
#include <new>
#include <thread>

#include "vitalscope/platform/moved_returns.h"
#include "vitalscope/profiler/message_hook_records.h"
#include "vitalscope/profiler/message_hook_state.h"

namespace qbv::message_hook {

namespace {

constexpr std::size_t kPage = 4096;
#if defined(__x86_64__)
constexpr std::uint64_t kEntryRegister = 3;  // rbx
#else
constexpr std::uint64_t kEntryRegister = 19;  // x19
#endif
constexpr std::size_t kReserved = kPage + kMostEntries * sizeof(dtp_stack_entry);
static_assert(sizeof(dtp_thread_call_stack) + sizeof(dtp_stack_entry) <= kPage);

void giveBack(void* stack) {
  dtp_own_stack = &dtp_no_stack;
  setMovedReturns(nullptr);
  releasePages(stack, kReserved);
}

// One key for all runs: what was begun in one may return in the next.
const ThreadKey& stackKey() {
  static const ThreadKey key(giveBack);
  return key;
}

// Without memory for that, captures end at the first hooked send.
void tellWhereReturnsAre(const dtp_thread_call_stack& stack) {
  const auto address = [](const void* at) { return reinterpret_cast<std::uint64_t>(at); };
  const MovedReturns returns{address(dtp_return_point), kEntryRegister,
                             address(stack.entries),    kMostEntries,
                             address(&stack.top),       address(&stack.sends)};
  setMovedReturns(&returns);
}

// The stack, the guard at the end of its page, then the entries.
dtp_thread_call_stack* makeStack() {
  auto* const base = static_cast<std::byte*>(reservePages(kReserved));
  if (base == nullptr) return nullptr;
  if (!commitPages(base, kPage + (kFirstCapacity + kCapacityStep) * sizeof(dtp_stack_entry)) ||
      !stackKey().set(base)) {
    releasePages(base, kReserved);
    return nullptr;
  }
  auto* const entries = reinterpret_cast<dtp_stack_entry*>(base + kPage);
  entries[-1].position = kNoPosition;
  auto* const stack = new (base) dtp_thread_call_stack{
      entries - 1, entries + kFirstCapacity, 0, isMainThread(), entries, kFirstCapacity, stackOfThread()};
  tellWhereReturnsAre(*stack);
  return stack;
}

bool grow(dtp_thread_call_stack& stack) {
  if (stack.capacity + 2 * kCapacityStep > kMostEntries) return false;
  if (!commitPages(stack.entries + stack.capacity + kCapacityStep, kCapacityStep * sizeof(dtp_stack_entry)))
    return false;
  stack.capacity += kCapacityStep;
  stack.end = stack.entries + stack.capacity;
  return true;
}

thread_local bool making = false;

}  // namespace

constinit Settings settings;
constinit Records records;

void Records::append(const dtp_call_record& record) {
  // Only the main thread adds records; what it sends while it adds one is not recorded.
  if (adding_.exchange(true)) return;
  if (!settings.stopped.load() && !held_.load() && makeRoom()) {
    const std::int32_t count = count_.load(std::memory_order_relaxed);
    array_.load(std::memory_order_relaxed)[count] = record;
    count_.store(count + 1, std::memory_order_release);
  }
  adding_.store(false);
}

// There is always room for one more than the records there are.
bool Records::makeRoom() {
  dtp_call_record* const present = array_.load(std::memory_order_relaxed);
  const std::int32_t capacity = present == nullptr ? 0 : capacity_;
  if (present != nullptr && count_.load(std::memory_order_relaxed) + 1 < capacity) return true;
  const std::int32_t larger = capacity + kRecordStep;
  void* const array = std::realloc(present, static_cast<std::size_t>(larger) * sizeof(dtp_call_record));
  if (array == nullptr) return false;
  array_.store(static_cast<dtp_call_record*>(array), std::memory_order_release);
  capacity_ = larger;
  return true;
}

void Records::awaitQuiet() {
  const bool isAdder = dtp_own_stack->isMainThread;
  while (!isAdder && adding_.load()) std::this_thread::yield();
}

const dtp_call_record* Records::read(std::int32_t* count) const {
  const std::int32_t present = count_.load(std::memory_order_acquire);
  if (count != nullptr) *count = present;
  return array_.load(std::memory_order_acquire);
}

void Records::clear() {
  held_.store(true);
  awaitQuiet();
  std::free(array_.exchange(nullptr));
  count_.store(0);
  held_.store(false);
}

}  // namespace qbv::message_hook

using namespace qbv;
using namespace qbv::message_hook;

void* dtp_make_room(void*, void*) {
  // What making a stack sends itself is not noted.
  if (making) return nullptr;
  making = true;
  dtp_thread_call_stack* stack = dtp_own_stack;
  if (stack == &dtp_no_stack) {
    TimeOfDayFunction* none = nullptr;
    settings.clock.compare_exchange_strong(none, timeOfDayFunction());
    stack = makeStack();
    if (stack != nullptr) dtp_own_stack = stack;
  } else if (!grow(*stack)) {
    stack = nullptr;
  }
  making = false;
  return stack;
}

void* dtp_append_record(void* entry, void* cost) {
  const auto& send = *static_cast<const dtp_stack_entry*>(entry);
  records.append({send.cls, send.selector, reinterpret_cast<std::uint64_t>(cost),
                  static_cast<std::int32_t>(&send - dtp_own_stack->entries)});
  return nullptr;
}
