// Which frame of a stack to look at: the application's own function that the thread was in.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/report_reader/report.h"

namespace qbv::reader {

// Whose code an image is.
enum class Owner {
  application,  // the executable
  library,      // brought along by the application: neither in a system folder nor a known toolkit
  system,       // C library, loader, kernel, toolkits, anything in a system folder, and the monitor itself
};

// `images`: the report's list, whose first entry is the executable. An image that is not listed is the
// system's.
Owner ownerOf(const std::string& imageName, const std::vector<Image>& images);

// The rule, the first that gives a frame:
//   1. the innermost frame of the executable that is no entry point (main, _start, or a frame that the C
//      library's start code called);
//   2. the innermost frame of a library that the application brought along;
//   3. the innermost frame of the executable, so its entry point.
// `frame` indexes `frames`; `waitingIn` is the innermost function further in whose name is known, "" when the
// frame itself was running or nothing further in has a name.
struct Blocking {
  std::size_t frame = 0;
  std::string waitingIn;
};
std::optional<Blocking> blockingFrame(const std::vector<Frame>& frames, const std::vector<Image>& images);

// A symbol as its author wrote it; the symbol itself when it is not mangled.
std::string demangled(const std::string& symbol);

// "openDocument … in clock_nanosleep", "spin" when it was running itself; "" when the rule gives no frame.
// Demangled, without argument lists.
std::string describeBlocking(const std::vector<Frame>& frames, const std::vector<Image>& images);

// A demangled name without its argument list.
std::string withoutArguments(const std::string& name);

}  // namespace qbv::reader
