#include "tools/tracer/process_images.h"

#include <cstdlib>

namespace tracer {

namespace {

const Dwfl_Callbacks kCallbacks = {.find_elf = dwfl_linux_proc_find_elf,
                                   .find_debuginfo = dwfl_standard_find_debuginfo,
                                   .section_address = dwfl_offline_section_address,
                                   .debuginfo_path = nullptr};

}  // namespace

ProcessImages noImages() {
  unsetenv("DEBUGINFOD_URLS");
  return ProcessImages(dwfl_begin(&kCallbacks));
}

bool addImagesOf(Dwfl* images, pid_t process) {
  dwfl_report_begin_add(images);
  const int failed = dwfl_linux_proc_report(images, process);
  return dwfl_report_end(images, nullptr, nullptr) == 0 && failed == 0;
}

}  // namespace tracer
