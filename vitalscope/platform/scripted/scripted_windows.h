// A screen and windows that are plain values, and a mouse that the test holds.
#pragma once

#include <map>
#include <vector>

#include "vitalscope/platform/windows.h"

namespace qbv {

struct ScriptedWindow {
  WindowState state;  // as last presented
  unsigned presentations = 0;
  std::weak_ptr<WindowClient> client;
};

// The thread that plays the main thread. No lock is held while clients run.
class ScriptedWindows final : public Windows {
 public:
  // Runs `then` at once, on the calling thread.
  void prepare(Block then) override;
  NSRect mainScreenFrame() override { return screen_; }
  WindowNumber addWindow(std::weak_ptr<WindowClient> client) override;
  void present(WindowNumber window, WindowState state) override;
  void removeWindow(WindowNumber window) override { windows_.erase(window); }

  // 1440 × 900 at first.
  void setMainScreenFrame(NSRect frame) { screen_ = frame; }
  unsigned preparations() const { return preparations_; }
  // Those that are, by number; the first is 1.
  const std::map<WindowNumber, ScriptedWindow>& windows() const { return windows_; }
  const ScriptedWindow& window(WindowNumber number) const { return windows_.at(number); }

  // What the user and the display do.
  void press(WindowNumber number, NSPoint point);
  void release(WindowNumber number, NSPoint point);
  void drag(WindowNumber number, NSPoint newOrigin);
  void loseDisplay();

 private:
  std::shared_ptr<WindowClient> clientOf(WindowNumber number) const;

  NSRect screen_{{0, 0}, {1440, 900}};
  unsigned preparations_ = 0;
  WindowNumber lastNumber_ = 0;
  std::map<WindowNumber, ScriptedWindow> windows_;
};

}  // namespace qbv
