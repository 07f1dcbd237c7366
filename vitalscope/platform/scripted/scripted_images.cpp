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

void ScriptedImages::_dyld_register_func_for_add_image(AddImageCallback callback) {
  std::vector<std::pair<const void*, std::intptr_t>> now;
  {
    const std::lock_guard lock(mutex_);
    callbacks_.push_back(callback);
    for (const Place& place : places_) {
      if (place.present) now.emplace_back(place.image->header(), place.slide);
    }
  }
  for (const auto& [header, slide] : now) callback(static_cast<const mach_header_64*>(header), slide);
}

const void* ScriptedImages::headerWithSlots(std::uint32_t index) {
  return _dyld_get_image_header(index);
}

std::uint32_t ScriptedImages::settledImageCount() {
  return _dyld_image_count();
}

bool ScriptedImages::whileLoaded(const void* header, const std::function<void(std::uint32_t)>& use) {
  std::optional<std::uint32_t> found;
  {
    const std::lock_guard lock(mutex_);
    for (std::uint32_t i = 0; i < places_.size() && !found; ++i) {
      const Place& place = places_[i];
      if (place.present && !place.unknown && place.image->header() == header) found = i;
    }
  }
  if (found) use(*found);
  return found.has_value();
}

bool ScriptedImages::holdsData(std::uint32_t index, std::uint64_t address, std::size_t size) {
  const std::lock_guard lock(mutex_);
  const Place* const place = present(index);
  if (place == nullptr) return false;
  if (place->image->holds(reinterpret_cast<const void*>(address), size)) return true;
  return address >= place->dataAddress && size <= place->dataSize &&
         address - place->dataAddress <= place->dataSize - size;
}

std::uint64_t ScriptedImages::functionBehind(std::uint32_t, const char*, std::uint64_t, std::uint64_t value) {
  const std::lock_guard lock(mutex_);
  const auto found = functionsBehind_.find(value);
  return found != functionsBehind_.end() ? found->second : value;
}

int ScriptedImages::vm_protect(std::uint64_t address, std::uint64_t size, bool setMaximum, int protection) {
  const std::lock_guard lock(mutex_);
  protections_.push_back({address, size, setMaximum, protection});
  return protectResult_;
}

std::uint32_t ScriptedImages::add(ScriptedImage image, std::optional<std::string> name) {
  std::vector<AddImageCallback> callbacks;
  const auto* const header = static_cast<const mach_header_64*>(image.header());
  const std::intptr_t slide = image.slide();
  std::uint32_t index = 0;
  {
    const std::lock_guard lock(mutex_);
    Place& place = places_.emplace_back();
    place.slide = slide;
    place.image = std::make_unique<ScriptedImage>(std::move(image));
    if (name) place.name = std::make_unique<std::string>(std::move(*name));
    place.present = true;
    index = static_cast<std::uint32_t>(places_.size() - 1);
    callbacks = callbacks_;
  }
  for (const AddImageCallback callback : callbacks) callback(header, slide);
  return index;
}

void ScriptedImages::setData(std::uint32_t index, std::uint64_t address, std::size_t size) {
  const std::lock_guard lock(mutex_);
  Place& place = places_.at(index);
  place.dataAddress = address;
  place.dataSize = size;
}

void ScriptedImages::setFunctionBehind(std::uint64_t value, std::uint64_t function) {
  const std::lock_guard lock(mutex_);
  functionsBehind_[value] = function;
}

void ScriptedImages::setUnknown(std::uint32_t index, bool unknown) {
  const std::lock_guard lock(mutex_);
  places_.at(index).unknown = unknown;
}

void ScriptedImages::setProtectResult(int result) {
  const std::lock_guard lock(mutex_);
  protectResult_ = result;
}

std::vector<ScriptedImages::Protection> ScriptedImages::protections() {
  const std::lock_guard lock(mutex_);
  return protections_;
}

std::size_t ScriptedImages::registrations() {
  const std::lock_guard lock(mutex_);
  return callbacks_.size();
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
