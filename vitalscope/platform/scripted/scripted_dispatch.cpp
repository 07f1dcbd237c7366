#include "vitalscope/platform/scripted/scripted_dispatch.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <deque>
#include <utility>

namespace qbv {

struct ScriptedDispatch::Item {
  std::uint64_t sequence = 0;
  Block block;
  std::shared_ptr<Timer> timer;  // instead of the block
};

struct ScriptedDispatch::Queue final : DispatchQueue {
  Queue(std::string text, bool serialQueue) : name(std::move(text)), serial(serialQueue) {}
  const std::string& label() const noexcept override { return name; }

  const std::string name;
  const bool serial;
  std::deque<Item> items;
  unsigned running = 0;
};

// What the dispatcher keeps of a timer. All but `released` and the handler's own lock belong to its mutex.
struct ScriptedDispatch::Timer {
  bool over() const { return info.cancelled || released; }
  bool armed() const { return info.resumed && set && !over(); }

  std::shared_ptr<Block> takeHandler() {
    const std::lock_guard lock(handlerMutex);
    return std::exchange(handler, nullptr);
  }

  std::shared_ptr<Queue> queue;
  ScriptedTimerInfo info;
  bool set = false;
  bool queued = false;
  bool running = false;
  std::uint64_t due = 0;
  std::atomic<bool> released{false};
  std::mutex handlerMutex;
  std::shared_ptr<Block> handler;
};

// What the owner holds. It may outlive the dispatcher.
struct ScriptedDispatch::TimerHandle final : DispatchTimer {
  explicit TimerHandle(std::shared_ptr<Timer> state) : timer(std::move(state)) {}
  TimerHandle(const TimerHandle&) = delete;
  TimerHandle& operator=(const TimerHandle&) = delete;
  ~TimerHandle() override {
    timer->released = true;
    timer->takeHandler();
  }
  const std::shared_ptr<Timer> timer;
};

ScriptedDispatch::ScriptedDispatch(ScriptedClock& clock)
    : clock_(clock),
      mainQueue_(std::make_shared<Queue>("main", true)),
      globalQueue_(std::make_shared<Queue>("global", false)) {
  clock_.setAdvanceHandler([this](std::uint64_t nanoseconds) { advanceNanoseconds(nanoseconds); });
}

ScriptedDispatch::~ScriptedDispatch() {
  clock_.setAdvanceHandler(nullptr);
}

DispatchQueueRef ScriptedDispatch::dispatch_queue_create(const std::string& label, QueueKind kind) {
  const std::lock_guard lock(mutex_);
  queueLabels_.push_back(label);
  return std::make_shared<Queue>(label, kind == QueueKind::serial);
}

DispatchQueueRef ScriptedDispatch::dispatch_get_global_queue() {
  return globalQueue_;
}

DispatchQueueRef ScriptedDispatch::dispatch_get_main_queue() {
  return mainQueue_;
}

void ScriptedDispatch::dispatch_async(const DispatchQueueRef& queue, Block block) {
  const auto target = std::dynamic_pointer_cast<Queue>(queue);
  if (target == nullptr || !block) return;
  const std::lock_guard lock(mutex_);
  push(target, Item{0, std::move(block), nullptr});
}

void ScriptedDispatch::push(const std::shared_ptr<Queue>& queue, Item item) {
  item.sequence = nextSequence_++;
  if (queue == mainQueue_)
    mainQueueHasWork_.notify_all();
  else if (queue->items.empty())
    working_.push_back(queue);
  queue->items.push_back(std::move(item));
}

DispatchTimerRef ScriptedDispatch::dispatch_source_create(const DispatchQueueRef& queue) {
  const auto timer = std::make_shared<Timer>();
  timer->queue = std::dynamic_pointer_cast<Queue>(queue);
  if (timer->queue == nullptr) return nullptr;
  timer->info.queueLabel = timer->queue->name;
  const std::lock_guard lock(mutex_);
  timers_.push_back(timer);
  running_.push_back(timer);
  return std::make_shared<TimerHandle>(timer);
}

std::shared_ptr<ScriptedDispatch::Timer> ScriptedDispatch::timerOf(const DispatchTimerRef& timer) {
  const auto* const handle = dynamic_cast<const TimerHandle*>(timer.get());
  return handle == nullptr ? nullptr : handle->timer;
}

void ScriptedDispatch::dispatch_source_set_timer(const DispatchTimerRef& timer,
                                                 std::uint64_t intervalNanoseconds,
                                                 std::uint64_t leewayNanoseconds) {
  const auto state = timerOf(timer);
  if (state == nullptr) return;
  const std::lock_guard lock(mutex_);
  state->info.intervalNanoseconds = intervalNanoseconds;
  state->info.leewayNanoseconds = leewayNanoseconds;
  state->set = true;
  state->due = clock_.monotonicNanoseconds();
}

void ScriptedDispatch::dispatch_source_set_event_handler(const DispatchTimerRef& timer, Block handler) {
  const auto state = timerOf(timer);
  if (state == nullptr) return;
  auto replacement = handler ? std::make_shared<Block>(std::move(handler)) : nullptr;
  const std::lock_guard lock(state->handlerMutex);
  state->handler.swap(replacement);
}

void ScriptedDispatch::dispatch_resume(const DispatchTimerRef& timer) {
  const auto state = timerOf(timer);
  if (state == nullptr) return;
  const std::lock_guard lock(mutex_);
  if (state->info.resumed) return;
  state->info.resumed = true;
  state->due = clock_.monotonicNanoseconds();
}

void ScriptedDispatch::dispatch_source_cancel(const DispatchTimerRef& timer) {
  const auto state = timerOf(timer);
  if (state == nullptr) return;
  {
    const std::lock_guard lock(mutex_);
    state->info.cancelled = true;
  }
  state->takeHandler();
}

DispatchThreadRef ScriptedDispatch::startThread(const std::string& name, Block entry) {
  return entry ? threads_.start(name, std::move(entry), clock_.monotonicNanoseconds()) : nullptr;
}

void ScriptedDispatch::enqueueDue() {
  const std::uint64_t now = clock_.monotonicNanoseconds();
  std::vector<std::shared_ptr<Timer>> due;
  std::erase_if(running_, [](const auto& timer) { return timer->over(); });
  for (const auto& timer : running_)
    if (timer->armed() && !timer->queued && !timer->running && timer->due <= now) due.push_back(timer);
  std::ranges::stable_sort(due, {}, &Timer::due);
  for (const auto& timer : due) {
    timer->queued = true;
    push(timer->queue, Item{0, nullptr, timer});
  }
}

// Firings that already wait, or wait for their own handler, are no moments to stop at.
std::optional<std::uint64_t> ScriptedDispatch::nextDue() {
  std::optional<std::uint64_t> next = threads_.nextDue();
  for (const auto& timer : running_)
    if (timer->armed() && !timer->queued && !timer->running && (!next || timer->due < *next))
      next = timer->due;
  return next;
}

std::shared_ptr<ScriptedDispatch::Queue> ScriptedDispatch::nextRunnable() {
  std::shared_ptr<Queue> next;
  for (const auto& queue : working_) {
    if (queue->serial && queue->running > 0) continue;
    if (next == nullptr || queue->items.front().sequence < next->items.front().sequence) next = queue;
  }
  return next;
}

void ScriptedDispatch::runFront(std::unique_lock<std::mutex>& lock, Queue& queue) {
  Item item = std::move(queue.items.front());
  queue.items.pop_front();
  if (queue.items.empty())
    std::erase_if(working_, [&queue](const auto& present) { return present.get() == &queue; });
  ++queue.running;
  if (item.timer != nullptr) {
    fire(lock, *item.timer);
  } else {
    lock.unlock();
    item.block();
    item.block = nullptr;
    lock.lock();
  }
  --queue.running;
}

void ScriptedDispatch::fire(std::unique_lock<std::mutex>& lock, Timer& timer) {
  timer.queued = false;
  if (!timer.armed()) return;
  const std::uint64_t now = clock_.monotonicNanoseconds();
  const std::uint64_t interval = std::max<std::uint64_t>(timer.info.intervalNanoseconds, 1);
  if (timer.due <= now) timer.due += ((now - timer.due) / interval + 1) * interval;
  ++timer.info.firings;
  timer.running = true;
  std::shared_ptr<Block> handler;
  {
    const std::lock_guard handlerLock(timer.handlerMutex);
    handler = timer.handler;
  }
  lock.unlock();
  if (handler != nullptr) (*handler)();
  handler.reset();
  lock.lock();
  timer.running = false;
}

bool ScriptedDispatch::runUntilIdle() {
  bool ran = false;
  std::unique_lock lock(mutex_);
  for (;;) {
    enqueueDue();
    const auto queue = nextRunnable();
    if (queue != nullptr) {
      runFront(lock, *queue);
    } else {
      lock.unlock();
      const bool threadRan = threads_.runOne(clock_.monotonicNanoseconds());
      lock.lock();
      if (!threadRan) return ran;
    }
    ran = true;
  }
}

void ScriptedDispatch::advance(double seconds) {
  advanceNanoseconds(static_cast<std::uint64_t>(std::llround(std::max(seconds, 0.0) * 1e9)));
}

void ScriptedDispatch::advanceNanoseconds(std::uint64_t nanoseconds) {
  const std::uint64_t target = clock_.monotonicNanoseconds() + nanoseconds;
  for (;;) {
    runUntilIdle();
    std::unique_lock lock(mutex_);
    const std::optional<std::uint64_t> due = nextDue();
    if (!due || *due > target) break;
    clock_.moveTo(*due);
  }
  clock_.moveTo(target);
  runUntilIdle();
}

bool ScriptedDispatch::drainMainQueue() {
  std::unique_lock lock(mutex_);
  enqueueDue();
  const std::uint64_t end = nextSequence_;
  bool ran = false;
  while (!mainQueue_->items.empty() && mainQueue_->items.front().sequence < end) {
    runFront(lock, *mainQueue_);
    ran = true;
  }
  return ran;
}

void ScriptedDispatch::waitForMainQueue() {
  std::unique_lock lock(mutex_);
  mainQueueHasWork_.wait(lock, [this] { return mainQueueWoken_ || !mainQueue_->items.empty(); });
  mainQueueWoken_ = false;
}

void ScriptedDispatch::wakeMainQueue() {
  const std::lock_guard lock(mutex_);
  mainQueueWoken_ = true;
  mainQueueHasWork_.notify_all();
}

std::size_t ScriptedDispatch::mainQueueLength() {
  const std::lock_guard lock(mutex_);
  enqueueDue();
  return mainQueue_->items.size();
}

std::size_t ScriptedDispatch::pendingCount() {
  const std::lock_guard lock(mutex_);
  enqueueDue();
  std::size_t count = 0;
  for (const auto& queue : working_) count += queue->items.size();
  return count;
}

std::vector<ScriptedTimerInfo> ScriptedDispatch::timers() {
  const std::lock_guard lock(mutex_);
  std::vector<ScriptedTimerInfo> infos;
  for (const auto& timer : timers_) {
    infos.push_back(timer->info);
    infos.back().cancelled |= timer->released;
  }
  return infos;
}

std::size_t ScriptedDispatch::liveTimerCount() {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::ranges::count_if(timers_, [](const auto& timer) { return timer->armed(); }));
}

std::vector<std::string> ScriptedDispatch::queueLabels() {
  const std::lock_guard lock(mutex_);
  return queueLabels_;
}

}  // namespace qbv
