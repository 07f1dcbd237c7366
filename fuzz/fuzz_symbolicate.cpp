// Any bytes as an image's header, commands and tables: the look-up reads nothing outside of them and comes to
// an end. Input: the address to look up (8 bytes, slid), then the image; unslid address 0x10000 is its start.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "vitalscope/probes/symbolicate.h"

namespace {

constexpr std::uint64_t kStart = 0x10000;

class OneImage final : public qbv::Images {
 public:
  OneImage(const std::uint8_t* bytes, std::size_t size) : bytes_(new std::uint8_t[size]), size_(size) {
    if (size != 0) std::memcpy(bytes_.get(), bytes, size);
  }
  std::uint64_t start() const { return reinterpret_cast<std::uint64_t>(bytes_.get()); }

  std::uint32_t _dyld_image_count() override { return 1; }
  const void* _dyld_get_image_header(std::uint32_t index) override {
    return index == 0 ? bytes_.get() : nullptr;
  }
  std::intptr_t _dyld_get_image_vmaddr_slide(std::uint32_t) override {
    return static_cast<std::intptr_t>(start() - kStart);
  }
  const char* _dyld_get_image_name(std::uint32_t) override { return "/image"; }
  std::uint64_t loadAddress(std::uint32_t) override { return start(); }
  const void* headerWithSymbols(std::uint32_t) override { return bytes_.get(); }
  bool readable(std::uint32_t index, const void* address, std::size_t size) override {
    const auto at = reinterpret_cast<std::uint64_t>(address);
    return index == 0 && at >= start() && at - start() <= size_ && size <= size_ - (at - start());
  }
  std::optional<std::uint32_t> likelyImage(std::uint64_t address) override {
    return address % 2 == 0 ? std::optional<std::uint32_t>(0) : std::nullopt;
  }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::size_t size_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::uint64_t unslid = 0;
  if (size < sizeof unslid) return 0;
  std::memcpy(&unslid, data, sizeof unslid);
  OneImage image(data + sizeof unslid, size - sizeof unslid);
  const std::uint64_t address = unslid + image.start() - kStart;
  const std::uint64_t addresses[] = {address, address + 8};
  qbv_symbol_record records[2];
  qbv::symbolicate(image, addresses, records, 2, 0);
  for (const qbv_symbol_record& record : records) {
    // The name ends inside the image: reading it to its end is what every caller does.
    if (record.symbol_name != nullptr && std::strlen(record.symbol_name) > size) std::abort();
    if (record.symbol_name != nullptr && record.image_path == nullptr) std::abort();
  }
  return 0;
}
