// A terminal that shows a picture which changes, and takes keys.
#pragma once

#include <termios.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace qbv::cli {

// One per program; one thread. While it lives the signals that end or stop the program, and the one that
// tells of a new size, are blocked and served by wait(). Whatever way the program leaves but by SIGKILL, the
// terminal is as it was: cursor, line wrapping, echo, and what had been on the screen.
class LiveScreen {
 public:
  enum class Event { elapsed, redraw, quit };

  // Without `isDrawn` only signals are served: nothing is written, no key is read.
  explicit LiveScreen(bool isDrawn);
  ~LiveScreen();
  LiveScreen(const LiveScreen&) = delete;
  LiveScreen& operator=(const LiveScreen&) = delete;

  // Replaces the picture. Lines that are too long are cut off by the terminal.
  void draw(const std::vector<std::string>& lines);
  // As many lines as fit at present.
  std::size_t rows() const;

  // Waits for the moment, or for a key or signal. quit: "q", Ctrl-C and the signals that ask to end. Ctrl-Z
  // stops the program and, when it goes on, answers redraw.
  Event wait(std::chrono::steady_clock::time_point until);

 private:
  void enter();
  void leave();
  Event handleSignal();
  bool hasQuitKey();
  void stopUntilContinued();

  bool isDrawn_;
  bool readsKeys_ = false;
  int signals_ = -1;
  termios before_{};
};

}  // namespace qbv::cli
