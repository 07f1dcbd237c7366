#include "vitalscope/platform/windows.h"

#include <unistd.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/window_thread.h"

namespace qbv::linux_backend {
namespace {

constexpr std::chrono::milliseconds kLongestWaitForScreen{250};

class LinuxWindows final : public Windows {
 public:
  void prepare(Block then) override {
    if (isForkedChild()) return;
    const std::shared_ptr<WindowThread> thread = runningThread();
    if (::gettid() == ::getpid() && thread->state() == WindowThread::State::open)
      then();
    else
      thread->whenOpened(std::move(then));
  }

  NSRect mainScreenFrame() override {
    if (isForkedChild()) return {};
    std::shared_ptr<WindowThread> thread;
    {
      const std::lock_guard lock(mutex_);
      thread = thread_;
    }
    if (thread == nullptr) thread = runningThread();
    thread->waitUntilOpen(kLongestWaitForScreen);
    return thread->mainScreen();
  }

  WindowNumber addWindow(std::weak_ptr<WindowClient> client) override {
    const std::lock_guard lock(mutex_);
    clients_[++lastNumber_] = std::move(client);
    return lastNumber_;
  }

  void present(WindowNumber window, WindowState state) override {
    if (isForkedChild()) return;
    if (state.visible) {
      runningThread()->present(window, std::move(state));
      return;
    }
    const std::lock_guard lock(mutex_);
    if (thread_ != nullptr) thread_->present(window, std::move(state));
  }

  void removeWindow(WindowNumber window) override {
    if (isForkedChild()) return;
    const std::lock_guard lock(mutex_);
    clients_.erase(window);
    if (thread_ != nullptr) thread_->remove(window);
  }

 private:
  // Starts one when there is none or when the last one has lost its display.
  std::shared_ptr<WindowThread> runningThread() {
    std::shared_ptr<WindowThread> started;
    {
      const std::lock_guard lock(mutex_);
      if (thread_ != nullptr && thread_->state() != WindowThread::State::lost) return thread_;
      thread_ = std::make_shared<WindowThread>([this](WindowNumber window) { return clientOf(window); },
                                               [this](const std::string& failure) { logOnce(failure); });
      started = thread_;
    }
    started->start();
    return started;
  }

  std::shared_ptr<WindowClient> clientOf(WindowNumber window) {
    const std::lock_guard lock(mutex_);
    const auto found = clients_.find(window);
    return found != clients_.end() ? found->second.lock() : nullptr;
  }

  // A toggle that finds no display tries twice; its user reads one line. "": it was found.
  void logOnce(const std::string& failure) {
    {
      const std::lock_guard lock(mutex_);
      if (std::exchange(lastFailure_, failure) == failure || failure.empty()) return;
    }
    log().NSLog("QuibVitalscope: the window is not shown: " + failure);
  }

  std::mutex mutex_;
  std::shared_ptr<WindowThread> thread_;
  std::map<WindowNumber, std::weak_ptr<WindowClient>> clients_;
  WindowNumber lastNumber_ = 0;
  std::string lastFailure_;
};

}  // namespace

Windows& windows() {
  static auto* const area = new LinuxWindows;
  return *area;
}

}  // namespace qbv::linux_backend
