#include "vitalscope/platform/scripted/scripted_images.h"

#include <utility>

namespace qbv {

ScriptedImages::Place* ScriptedImages::present(std::uint32_t index) {
  return index < places_.size() && places_[index].present ? &places_[index] : nullptr;
}

std::uint32_t ScriptedImages::_dyld_image_count() {
  const std::lock_guard lock(mutex_);
  return static_cast<std::uint32_t>(places_.size());
}

const void* ScriptedImages::_dyld_get_image_header(std::uint32_t index) {
  const std::lock_guard lock(mutex_);
  const Place* const place = present(index);
  return place == nullptr ? nullptr : place->image->header();
}

std::intptr_t ScriptedImages::_dyld_get_image_vmaddr_slide(std::uint32_t index) {
  const std::lock_guard lock(mutex_);
  const Place* const place = present(index);
  return place == nullptr ? 0 : place->slide;
}

const char* ScriptedImages::_dyld_get_image_name(std::uint32_t index) {
  const std::lock_guard lock(mutex_);
  const Place* const place = present(index);
  return place == nullptr || place->name == nullptr ? nullptr : place->name->c_str();
}

std::uint64_t ScriptedImages::loadAddress(std::uint32_t index) {
  const std::lock_guard lock(mutex_);
  const Place* const place = present(index);
  if (place == nullptr) return 0;
  return place->loadAddress.value_or(reinterpret_cast<std::uintptr_t>(place->image->header()));
}

const void* ScriptedImages::headerWithSymbols(std::uint32_t index) {
  const std::lock_guard lock(mutex_);
  Place* const place = present(index);
  if (place == nullptr) return nullptr;
  ++place->symbolRequests;
  return place->withSymbols != nullptr ? place->withSymbols->header() : place->image->header();
}

bool ScriptedImages::readable(std::uint32_t index, const void* address, std::size_t size) {
  const std::lock_guard lock(mutex_);
  if (index >= places_.size() || places_[index].image == nullptr) return false;
  const Place& place = places_[index];
  return place.image->holds(address, size) ||
         (place.withSymbols != nullptr && place.withSymbols->holds(address, size));
}

std::optional<std::uint32_t> ScriptedImages::likelyImage(std::uint64_t address) {
  std::function<std::optional<std::uint32_t>(std::uint64_t)> answer;
  {
    const std::lock_guard lock(mutex_);
    answer = likelyImage_;
  }
  return answer ? answer(address) : std::nullopt;
}

std::uint32_t ScriptedImages::add(ScriptedImage image, std::optional<std::string> name) {
  const std::lock_guard lock(mutex_);
  Place& place = places_.emplace_back();
  place.slide = image.slide();
  place.image = std::make_unique<ScriptedImage>(std::move(image));
  if (name) place.name = std::make_unique<std::string>(std::move(*name));
  place.present = true;
  return static_cast<std::uint32_t>(places_.size() - 1);
}

std::uint32_t ScriptedImages::addEmptyPlace() {
  const std::lock_guard lock(mutex_);
  places_.emplace_back();
  return static_cast<std::uint32_t>(places_.size() - 1);
}

void ScriptedImages::remove(std::uint32_t index) {
  const std::lock_guard lock(mutex_);
  if (Place* const place = present(index)) place->present = false;
}

void ScriptedImages::setLoadAddress(std::uint32_t index, std::uint64_t address) {
  const std::lock_guard lock(mutex_);
  if (Place* const place = present(index)) place->loadAddress = address;
}

void ScriptedImages::setSlide(std::uint32_t index, std::intptr_t slide) {
  const std::lock_guard lock(mutex_);
  if (Place* const place = present(index)) place->slide = slide;
}

void ScriptedImages::setHeaderWithSymbols(std::uint32_t index, ScriptedImage description) {
  const std::lock_guard lock(mutex_);
  if (Place* const place = present(index))
    place->withSymbols = std::make_unique<ScriptedImage>(std::move(description));
}

void ScriptedImages::setLikelyImage(
    std::function<std::optional<std::uint32_t>(std::uint64_t address)> answer) {
  const std::lock_guard lock(mutex_);
  likelyImage_ = std::move(answer);
}

ScriptedImage& ScriptedImages::image(std::uint32_t index) {
  const std::lock_guard lock(mutex_);
  return *places_.at(index).image;
}

unsigned ScriptedImages::symbolRequests(std::uint32_t index) {
  const std::lock_guard lock(mutex_);
  return index < places_.size() ? places_[index].symbolRequests : 0;
}

}  // namespace qbv
