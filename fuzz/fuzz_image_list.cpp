// The list of images must come through any bytes a header and its commands may hold.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vitalscope/report/image_list.h"

namespace {

// One image whose description is a block of exactly the input's size, so that a read past it is found.
class OneImage final : public qbv::Images {
 public:
  OneImage(const std::uint8_t* data, std::size_t size) : bytes_(new std::uint8_t[size]), size_(size) {
    if (size > 0) std::memcpy(bytes_.get(), data, size);
  }
  std::uint32_t _dyld_image_count() override { return 1; }
  const void* _dyld_get_image_header(std::uint32_t) override { return bytes_.get(); }
  std::intptr_t _dyld_get_image_vmaddr_slide(std::uint32_t) override { return 0; }
  const char* _dyld_get_image_name(std::uint32_t) override { return "/usr/lib/libhostile.so"; }
  std::uint64_t loadAddress(std::uint32_t) override { return 0x7f0000000000; }
  const void* headerWithSymbols(std::uint32_t) override { return bytes_.get(); }
  bool readable(std::uint32_t, const void* address, std::size_t size) override {
    const auto start = reinterpret_cast<std::uintptr_t>(bytes_.get());
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    return wanted >= start && wanted - start <= size_ && size <= size_ - (wanted - start);
  }
  std::optional<std::uint32_t> likelyImage(std::uint64_t) override { return std::nullopt; }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::size_t size_;
};

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  OneImage images(data, size);
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
