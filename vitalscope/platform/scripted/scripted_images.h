// The list of loaded images, put together by the test.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vitalscope/platform/images.h"
#include "vitalscope/platform/scripted/scripted_image_builder.h"

namespace qbv {

// Empty at first. Any thread. Descriptions stay readable as long as this object lives, removed ones too.
class ScriptedImages final : public Images {
 public:
  std::uint32_t _dyld_image_count() override;
  const void* _dyld_get_image_header(std::uint32_t index) override;
  std::intptr_t _dyld_get_image_vmaddr_slide(std::uint32_t index) override;
  const char* _dyld_get_image_name(std::uint32_t index) override;
  // The header's own address unless set; 0 for an empty place.
  std::uint64_t loadAddress(std::uint32_t index) override;
  // The header itself unless another description was given.
  const void* headerWithSymbols(std::uint32_t index) override;
  bool readable(std::uint32_t index, const void* address, std::size_t size) override;
  std::optional<std::uint32_t> likelyImage(std::uint64_t address) override;

  // Adds an image at the end and answers its index. No name: the loader reports null.
  std::uint32_t add(ScriptedImage image, std::optional<std::string> name);
  // A place whose header is null (its name is null too).
  std::uint32_t addEmptyPlace();
  // The place stays and becomes empty.
  void remove(std::uint32_t index);
  void setLoadAddress(std::uint32_t index, std::uint64_t address);
  void setSlide(std::uint32_t index, std::intptr_t slide);
  void setHeaderWithSymbols(std::uint32_t index, ScriptedImage description);
  // Asked by likelyImage; without it that answers nothing.
  void setLikelyImage(std::function<std::optional<std::uint32_t>(std::uint64_t address)> answer);
  // The image added at that index. For set-up.
  ScriptedImage& image(std::uint32_t index);
  // How often headerWithSymbols was asked for an image.
  unsigned symbolRequests(std::uint32_t index);

 private:
  struct Place {
    std::unique_ptr<ScriptedImage> image;
    std::unique_ptr<ScriptedImage> withSymbols;
    std::unique_ptr<std::string> name;
    std::optional<std::uint64_t> loadAddress;
    std::intptr_t slide = 0;
    bool present = false;
    unsigned symbolRequests = 0;
  };
  Place* present(std::uint32_t index);

  std::mutex mutex_;
  std::vector<Place> places_;
  std::function<std::optional<std::uint32_t>(std::uint64_t)> likelyImage_;
};

}  // namespace qbv
