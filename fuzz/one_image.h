// A list of one image, whose description is a block of exactly the given size: a read past it is found.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>

#include "vitalscope/platform/images.h"

namespace qbv::fuzz {

class OneImage : public Images {
 public:
  // Unslid address `start` is the block's first byte.
  OneImage(const std::uint8_t* bytes, std::size_t size, std::uint64_t start)
      : bytes_(new std::uint8_t[size]), size_(size) {
    if (size != 0) std::memcpy(bytes_.get(), bytes, size);
    slide_ = static_cast<std::intptr_t>(this->start() - start);
  }
  std::uint64_t start() const { return reinterpret_cast<std::uint64_t>(bytes_.get()); }

  std::uint32_t _dyld_image_count() override { return 1; }
  const void* _dyld_get_image_header(std::uint32_t index) override {
    return index == 0 ? bytes_.get() : nullptr;
  }
  std::intptr_t _dyld_get_image_vmaddr_slide(std::uint32_t) override { return slide_; }
  const char* _dyld_get_image_name(std::uint32_t) override { return "/usr/lib/libhostile.so"; }
  std::uint64_t loadAddress(std::uint32_t) override { return start(); }
  const void* headerWithSymbols(std::uint32_t) override { return bytes_.get(); }
  bool readable(std::uint32_t index, const void* address, std::size_t size) override {
    const auto at = reinterpret_cast<std::uint64_t>(address);
    return index == 0 && at >= start() && at - start() <= size_ && size <= size_ - (at - start());
  }
  std::optional<std::uint32_t> likelyImage(std::uint64_t address) override {
    return address % 2 == 0 ? std::optional<std::uint32_t>(0) : std::nullopt;
  }
  void _dyld_register_func_for_add_image(AddImageCallback callback) override {
    callback(reinterpret_cast<const mach_header_64*>(bytes_.get()), slide_);
  }
  const void* headerWithSlots(std::uint32_t index) override { return _dyld_get_image_header(index); }
  std::uint32_t settledImageCount() override { return 1; }
  bool whileLoaded(const void* header, const std::function<void(std::uint32_t)>& use) override {
    if (header == bytes_.get()) use(0);
    return header == bytes_.get();
  }
  bool holdsData(std::uint32_t index, std::uint64_t address, std::size_t size) override {
    return readable(index, reinterpret_cast<const void*>(address), size);
  }
  std::uint64_t functionBehind(std::uint32_t, const char*, std::uint64_t, std::uint64_t value) override {
    return value;
  }
  int vm_protect(std::uint64_t, std::uint64_t, bool, int) override { return 0; }

 private:
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::size_t size_;
  std::intptr_t slide_ = 0;
};

}  // namespace qbv::fuzz
