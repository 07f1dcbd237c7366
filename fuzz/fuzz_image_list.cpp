// The list of images must come through any bytes a header and its commands may hold.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/one_image.h"
#include "vitalscope/report/image_list.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qbv::fuzz::OneImage images(data, size, 0);
  const auto list = qbv::listImages(images);
  require(list.size() <= 1);
  if (!list.empty() && list[0].uuid) {
    const auto& uuid = *list[0].uuid;
    require(::memmem(data, size, uuid.data(), uuid.size()) != nullptr);
  }
  const std::string text = qbv::binaryImagesText(list, "1.0");
  require(std::count(text.begin(), text.end(), '\n') == 2 + static_cast<std::ptrdiff_t>(list.size()));
  return 0;
}
