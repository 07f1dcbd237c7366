#include "vitalscope/dashboard/QBVDashboardButton.h"

#include "vitalscope/platform/platform.h"

using qbv::platform;

namespace {

constexpr double kLongestClickSeconds = 0.2;

}  // namespace

void QBVDashboardButton::updateTrackingAreas() {
  NSView::updateTrackingAreas();
  addTrackingArea({trackingRect(),
                   qbv::NSTrackingMouseEnteredAndExited | qbv::NSTrackingActiveWhenFirstResponder,
                   weak_from_this()});
}

void QBVDashboardButton::mouseDown(const qbv::NSEvent&) {
  clickDownTime_ = platform().clock.CFAbsoluteTimeGetCurrent();
}

void QBVDashboardButton::mouseUp(const qbv::NSEvent& event) {
  if (platform().clock.CFAbsoluteTimeGetCurrent() - clickDownTime_ > kLongestClickSeconds) return;
  const std::shared_ptr<qbv::Object> told = delegate();
  if (auto* const listener = dynamic_cast<QBVDashboardButtonDelegate*>(told.get()))
    listener->qbvDashboardButtonMouseDown(event);
}
