#include "vitalscope/platform/scripted/scripted_threads.h"

#include <algorithm>
#include <condition_variable>
#include <thread>
#include <utility>

namespace qbv {

struct ScriptedThreads::Thread final : DispatchThread {
  enum class State { asleep, running, ended };

  Thread(std::string text, Block block, std::uint64_t time)
      : label(std::move(text)), entry(std::move(block)), due(time) {}
  const std::string& name() const noexcept override { return label; }

  State stateNow() {
    const std::lock_guard lock(mutex);
    return state;
  }
  // Gives the turn away and waits for the next one.
  void sleep(std::uint64_t time) {
    std::unique_lock lock(mutex);
    due = time;
    leave(lock, State::asleep);
    changed.wait(lock, [this] { return state == State::running; });
  }
  void leave(const std::unique_lock<std::mutex>&, State left) {
    state = left;
    changed.notify_all();
  }

  const std::string label;
  const Block entry;
  std::mutex mutex;
  std::condition_variable changed;
  State state = State::asleep;
  std::uint64_t due;
};

namespace {

thread_local void* own = nullptr;

}  // namespace

DispatchThreadRef ScriptedThreads::start(const std::string& name, Block entry, std::uint64_t now) {
  const auto thread = std::make_shared<Thread>(name, std::move(entry), now);
  std::thread(threadMain, thread).detach();
  const std::lock_guard lock(mutex_);
  threads_.push_back(thread);
  return thread;
}

void ScriptedThreads::threadMain(std::shared_ptr<Thread> self) {
  {
    std::unique_lock lock(self->mutex);
    self->changed.wait(lock, [&] { return self->state == Thread::State::running; });
  }
  own = self.get();
  self->entry();
  const std::unique_lock lock(self->mutex);
  self->leave(lock, Thread::State::ended);
}

std::optional<std::uint64_t> ScriptedThreads::nextDue() {
  const std::lock_guard lock(mutex_);
  std::optional<std::uint64_t> next;
  for (const auto& thread : threads_) {
    const std::lock_guard threadLock(thread->mutex);
    if (thread->state == Thread::State::asleep && (!next || thread->due < *next)) next = thread->due;
  }
  return next;
}

bool ScriptedThreads::runOne(std::uint64_t now) {
  const std::optional<std::uint64_t> due = nextDue();
  if (!due || *due > now) return false;
  std::shared_ptr<Thread> next;
  {
    const std::lock_guard lock(mutex_);
    next = *std::ranges::find_if(threads_, [&](const auto& thread) {
      const std::lock_guard threadLock(thread->mutex);
      return thread->state == Thread::State::asleep && thread->due == *due;
    });
  }
  std::unique_lock lock(next->mutex);
  next->leave(lock, Thread::State::running);
  next->changed.wait(lock, [&] { return next->state != Thread::State::running; });
  return true;
}

std::vector<std::string> ScriptedThreads::names() {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto& thread : threads_)
    if (thread->stateNow() != Thread::State::ended) names.push_back(thread->label);
  return names;
}

bool ScriptedThreads::sleepUntil(std::uint64_t time) {
  if (own == nullptr) return false;
  static_cast<Thread*>(own)->sleep(time);
  return true;
}

}  // namespace qbv
