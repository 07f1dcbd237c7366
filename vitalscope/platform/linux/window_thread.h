// The thread that owns the connection to the display.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vitalscope/platform/linux/descriptor.h"
#include "vitalscope/platform/linux/window_module.h"

namespace qbv::linux_backend {

// One connection from its opening to its loss. Its functions: any thread but its own, none waits for the
// display unless it says so. Owned by a shared pointer; the thread holds another.
class WindowThread final : public DisplayListener, public std::enable_shared_from_this<WindowThread> {
 public:
  // The client of a window, null when it is gone.
  using FindClient = std::function<std::shared_ptr<WindowClient>(WindowNumber)>;
  // Told on the window thread why there is no connection, or none any more; "" when there is one.
  using TellFailure = std::function<void(const std::string&)>;
  // Callbacks to clients run on the main queue.
  WindowThread(FindClient findClient, TellFailure tellFailure);

  // Starts the thread; without one the connection counts as lost.
  void start();

  enum class State { opening, open, lost };
  State state() const;
  // Empty until the display is open; afterwards that of its last word.
  NSRect mainScreen() const;
  // The state after the opening, or the present one when that takes longer.
  State waitUntilOpen(std::chrono::milliseconds longest) const;
  // Puts the block on the main queue when the opening has ended, one way or the other.
  void whenOpened(Block then);
  // False when the connection is lost.
  bool present(WindowNumber window, WindowState state);
  void remove(WindowNumber window);

 private:
  struct Wish {
    WindowState state;
    bool removed = false;
  };

  void run();
  void serve(WindowDisplay& display);
  std::map<WindowNumber, Wish> takeWishes();
  bool wish(WindowNumber window, Wish wanted, bool visible);
  void opened(NSRect screen);
  void end();
  void tell(WindowNumber window, std::function<void(WindowClient&)> call);

  void mouseEvent(WindowNumber window, const NSEvent& event) override;
  void windowMoved(WindowNumber window, NSPoint origin) override;
  void screenChanged(NSRect mainScreen) override;

  const FindClient findClient_;
  const TellFailure tellFailure_;
  Descriptor wake_;
  mutable std::mutex mutex_;
  mutable std::condition_variable stateChanged_;
  State state_ = State::opening;
  NSRect screen_;
  std::vector<Block> waiting_;
  std::map<WindowNumber, Wish> wishes_;
  std::map<WindowNumber, bool> shown_;  // as last wished
};

}  // namespace qbv::linux_backend
