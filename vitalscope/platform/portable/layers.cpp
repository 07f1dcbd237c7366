#include "vitalscope/platform/layers.h"

#include <algorithm>
#include <utility>

#include "vitalscope/platform/views.h"

namespace qbv {

PathElementType NSBezierPath::elementAtIndex(std::size_t index, NSPoint* associatedPoints) const {
  const PathElement& element = elements_[index];
  static constexpr std::size_t pointCounts[] = {1, 1, 3, 0};
  std::copy_n(element.points.begin(), pointCounts[static_cast<std::size_t>(element.type)], associatedPoints);
  return element.type;
}

CALayer::~CALayer() {
  for (const auto& layer : sublayers_) layer->superlayer_ = nullptr;
}

void CALayer::addSublayer(const std::shared_ptr<CALayer>& layer) {
  if (layer == nullptr) return;
  layer->removeFromSuperlayer();
  layer->superlayer_ = this;
  sublayers_.push_back(layer);
  setNeedsDisplay();
}

void CALayer::removeFromSuperlayer() {
  if (superlayer_ == nullptr) return;
  setNeedsDisplay();
  const std::shared_ptr<CALayer> self = shared_from_this();
  std::erase(std::exchange(superlayer_, nullptr)->sublayers_, self);
}

void CALayer::setNeedsDisplay() {
  const CALayer* top = this;
  while (top->superlayer_ != nullptr) top = top->superlayer_;
  if (top->view_ != nullptr) top->view_->setNeedsDisplay();
}

}  // namespace qbv
