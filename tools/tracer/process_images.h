// The images of another process, as the library that reads their symbols and call-frame information knows
// them.
#pragma once

#include <elfutils/libdwfl.h>
#include <sys/types.h>

#include <memory>

namespace tracer {

struct EndDwfl {
  void operator()(Dwfl* images) const { dwfl_end(images); }
};
using ProcessImages = std::unique_ptr<Dwfl, EndDwfl>;

// No images yet; null on failure, which dwfl_errmsg(-1) tells. Symbols come from files of this machine only,
// for the rest of this program's life: a look-up over the network would stall who waits. While no other
// thread reads the environment.
ProcessImages noImages();
// Adds those that the process has mapped and that are not there yet. False when they cannot be listed.
bool addImagesOf(Dwfl* images, pid_t process);

}  // namespace tracer
