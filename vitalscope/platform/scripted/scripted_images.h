// The list of loaded images, put together by the test.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
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
  void _dyld_register_func_for_add_image(AddImageCallback callback) override;
  // The image's header unless another description was given.
  const void* headerWithSlots(std::uint32_t index) override;
  std::uint32_t settledImageCount() override;
  bool whileLoaded(const void* header, const std::function<void(std::uint32_t index)>& use) override;
  // The image's own bytes and what was given as its data.
  bool holdsData(std::uint32_t index, std::uint64_t address, std::size_t size) override;
  // The value itself unless set.
  std::uint64_t functionBehind(std::uint32_t index, const char* name, std::uint64_t slot,
                               std::uint64_t value) override;
  // Changes nothing; remembers the request. Succeeds unless told otherwise.
  int vm_protect(std::uint64_t address, std::uint64_t size, bool setMaximum, int protection) override;

  struct Protection {
    std::uint64_t address = 0;
    std::uint64_t size = 0;
    bool setMaximum = false;
    int protection = 0;
  };

  // Adds an image at the end and answers its index. No name: the loader reports null. Whoever has registered
  // is called back on this thread.
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
  // Memory of the test's own that counts as the image's data, for slots outside of its bytes.
  void setData(std::uint32_t index, std::uint64_t address, std::size_t size);
  // What a slot's value leads to, in any image.
  void setFunctionBehind(std::uint64_t value, std::uint64_t function);
  // The header is no loaded image's as long as this is so.
  void setUnknown(std::uint32_t index, bool unknown);
  // What vm_protect answers from now on.
  void setProtectResult(int result);
  std::vector<Protection> protections();
  // How many callbacks have registered.
  std::size_t registrations();
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
    std::uint64_t dataAddress = 0;
    std::size_t dataSize = 0;
    bool present = false;
    bool unknown = false;
    unsigned symbolRequests = 0;
  };
  Place* present(std::uint32_t index);

  std::mutex mutex_;
  std::vector<Place> places_;
  std::function<std::optional<std::uint32_t>(std::uint64_t)> likelyImage_;
  std::vector<AddImageCallback> callbacks_;
  std::map<std::uint64_t, std::uint64_t> functionsBehind_;
  std::vector<Protection> protections_;
  int protectResult_ = 0;
};

}  // namespace qbv
