// Names of another process's functions and variables, from the files of its images on this machine.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "tools/leaks/snapshot.h"
#include "tools/tracer/process_images.h"

namespace leaks {

// The files are opened at the first question. One thread only.
class Symbols {
 public:
  // A thread of the process that has not ended.
  explicit Symbols(pid_t process) : process_(process) {}

  // What the address lies in, demangled: "vtable for Window", "draw(Window*)". "" where no symbol tells, when
  // the process has ended, and after some thousand different addresses, since each takes a walk through all
  // symbols of an image.
  const std::string& nameOf(Address address);

 private:
  bool open();
  std::string lookUp(Address address);

  pid_t process_;
  tracer::ProcessImages images_;
  bool isTried_ = false;
  std::map<Address, std::string> known_;
};

}  // namespace leaks
