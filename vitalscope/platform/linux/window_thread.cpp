#include "vitalscope/platform/linux/window_thread.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <utility>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/thread_start.h"

namespace qbv::linux_backend {
namespace {

void onMainQueue(Block block) {
  dispatch().dispatch_async(dispatch().dispatch_get_main_queue(), std::move(block));
}

}  // namespace

WindowThread::WindowThread(FindClient findClient, TellFailure tellFailure)
    : findClient_(std::move(findClient)),
      tellFailure_(std::move(tellFailure)),
      wake_(outOfTheWay(Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))) {}

void WindowThread::start() {
  auto* const self = new std::shared_ptr<WindowThread>(shared_from_this());
  const auto entry = [](void* argument) {
    const std::unique_ptr<std::shared_ptr<WindowThread>> held(
        static_cast<std::shared_ptr<WindowThread>*>(argument));
    (*held)->run();
  };
  if (wake_ && startThread("quib window", kHandlerStackBytes, entry, self)) return;
  delete self;
  end();
}

void WindowThread::run() {
  std::string failure;
  const std::unique_ptr<WindowDisplay> display = openDisplay(failure);
  if (display != nullptr) {
    tellFailure_("");
    opened(display->mainScreen());
    serve(*display);
    failure = "the connection to the display is lost";
  }
  tellFailure_(failure);
  end();
}

void WindowThread::opened(NSRect screen) {
  std::vector<Block> waiting;
  {
    const std::lock_guard lock(mutex_);
    state_ = State::open;
    screen_ = screen;
    waiting.swap(waiting_);
  }
  stateChanged_.notify_all();
  for (Block& block : waiting) onMainQueue(std::move(block));
}

void WindowThread::end() {
  std::vector<Block> waiting;
  std::map<WindowNumber, bool> shown;
  {
    const std::lock_guard lock(mutex_);
    state_ = State::lost;
    waiting.swap(waiting_);
    shown.swap(shown_);
  }
  stateChanged_.notify_all();
  for (const auto& [window, visible] : shown)
    if (visible) tell(window, [](WindowClient& client) { client.closed(); });
  for (Block& block : waiting) onMainQueue(std::move(block));
}

void WindowThread::serve(WindowDisplay& display) {
  pollfd ready[] = {{display.descriptor(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
  for (;;) {
    for (const auto& [window, wanted] : takeWishes()) {
      if (wanted.removed)
        display.remove(window);
      else
        display.present(window, wanted.state);
    }
    if (!display.handleEvents(*this, ready[0].revents != 0)) return;
    retried([&] { return ::poll(ready, 2, -1); });
  }
}

std::map<WindowNumber, WindowThread::Wish> WindowThread::takeWishes() {
  eventfd_t count = 0;
  ::eventfd_read(wake_.get(), &count);
  const std::lock_guard lock(mutex_);
  return std::exchange(wishes_, {});
}

WindowThread::State WindowThread::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

NSRect WindowThread::mainScreen() const {
  const std::lock_guard lock(mutex_);
  return screen_;
}

WindowThread::State WindowThread::waitUntilOpen(std::chrono::milliseconds longest) const {
  std::unique_lock lock(mutex_);
  stateChanged_.wait_for(lock, longest, [this] { return state_ != State::opening; });
  return state_;
}

void WindowThread::whenOpened(Block then) {
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::opening) {
      waiting_.push_back(std::move(then));
      return;
    }
  }
  onMainQueue(std::move(then));
}

bool WindowThread::present(WindowNumber window, WindowState state) {
  const bool visible = state.visible;
  return wish(window, {std::move(state), false}, visible);
}

void WindowThread::remove(WindowNumber window) {
  wish(window, {{}, true}, false);
}

bool WindowThread::wish(WindowNumber window, Wish wanted, bool visible) {
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::lost) return false;
    shown_[window] = visible;
    wishes_[window] = std::move(wanted);
  }
  ::eventfd_write(wake_.get(), 1);
  return true;
}

void WindowThread::tell(WindowNumber window, std::function<void(WindowClient&)> call) {
  onMainQueue([self = shared_from_this(), window, call = std::move(call)] {
    if (const auto client = self->findClient_(window)) call(*client);
  });
}

void WindowThread::mouseEvent(WindowNumber window, const NSEvent& event) {
  tell(window, [event](WindowClient& client) { client.mouseEvent(event); });
}

void WindowThread::windowMoved(WindowNumber window, NSPoint origin) {
  tell(window, [origin](WindowClient& client) { client.moved(origin); });
}

void WindowThread::screenChanged(NSRect mainScreen) {
  const std::lock_guard lock(mutex_);
  screen_ = mainScreen;
}

}  // namespace qbv::linux_backend
