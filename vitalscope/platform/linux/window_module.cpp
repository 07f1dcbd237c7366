#include "vitalscope/platform/linux/window_module.h"

#include <dlfcn.h>

#include "vitalscope/platform/linux/own_folder.h"

namespace qbv::linux_backend {
namespace {

OpenDisplay* findModule(std::string& failure) {
  const std::string place = QBV_MODULES_FROM_LIBRARY "/" QBV_WINDOW_MODULE;
  const std::string path = place.front() == '/' ? place : ownFolder() + place;
  void* const module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  void* const found = module != nullptr ? ::dlsym(module, kOpenDisplayName) : nullptr;
  if (found == nullptr) {
    const char* const reason = ::dlerror();
    failure = "cannot load " + path + ": " + (reason != nullptr ? reason : "it is no such module");
  }
  return reinterpret_cast<OpenDisplay*>(found);
}

}  // namespace

std::unique_ptr<WindowDisplay> openDisplay(std::string& failure) {
  static OpenDisplay* open = nullptr;  // the one window thread's
  if (open == nullptr) open = findModule(failure);
  if (open == nullptr) return nullptr;
  std::unique_ptr<WindowDisplay> display(open());
  if (display == nullptr) failure = "there is no X display that can show it";
  return display;
}

}  // namespace qbv::linux_backend
