#include "vitalscope/platform/linux/loaded_library.h"

#include <algorithm>
#include <climits>

#include "vitalscope/platform/linux/loader_list.h"

namespace qbv::linux_backend {

namespace {

struct Search {
  std::string_view prefix;
  char path[PATH_MAX];
};

int takePath(dl_phdr_info* info, std::size_t, void* data) {
  auto& search = *static_cast<Search*>(data);
  const std::string_view path = loaderName(*info);
  if (!path.substr(path.rfind('/') + 1).starts_with(search.prefix) || path.size() >= PATH_MAX) return 0;
  std::ranges::copy(path, search.path);
  return 1;
}

}  // namespace

void* loadedLibrary(std::string_view fileNamePrefix) {
  Search search{fileNamePrefix, ""};
  visitLoadedImages(takePath, &search);
  return search.path[0] != '\0' ? dlopen(search.path, RTLD_NOW | RTLD_NOLOAD) : nullptr;
}

}  // namespace qbv::linux_backend
