// A display for programs with windows, on machines that have none.
#pragma once

#include <sys/types.h>

#include <string>

namespace e2e {

// An X server without a screen, on a display number that no other process takes unless it is given one; it
// goes with the object.
class VirtualDisplay {
 public:
  explicit VirtualDisplay(const std::string& name = "");
  ~VirtualDisplay() { end(); }
  VirtualDisplay(const VirtualDisplay&) = delete;
  VirtualDisplay& operator=(const VirtualDisplay&) = delete;
  void end();
  // For DISPLAY; empty when the server is not installed or did not start.
  const std::string& name() const noexcept { return name_; }

 private:
  pid_t pid_ = -1;
  std::string name_;
};

// The line that comes next, without its end; empty when the other side closed early or was too slow.
std::string lineFrom(int descriptor);

}  // namespace e2e
