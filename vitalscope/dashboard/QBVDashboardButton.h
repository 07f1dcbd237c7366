// The transparent area over the gauge that tells short clicks from drags.
#pragma once

#include <memory>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/object.h"
#include "vitalscope/platform/views.h"

class QBV_EXPORT QBVDashboardButtonDelegate {
 public:
  virtual ~QBVDashboardButtonDelegate() = default;
  // The gauge was clicked; with the event that ended the click. Main thread.
  virtual void qbvDashboardButtonMouseDown(const qbv::NSEvent& event) = 0;
};

// Main thread only.
class QBV_EXPORT QBVDashboardButton : public qbv::NSView {
 public:
  using NSView::NSView;

  void updateTrackingAreas() override;
  qbv::NSRect trackingRect() const { return bounds(); }

  // A press that is released within 0.2 seconds is a click; neither is passed on.
  void mouseDown(const qbv::NSEvent& event) override;
  void mouseUp(const qbv::NSEvent& event) override;
  // When the last press happened, in seconds of absolute time.
  double clickDownTime() const { return clickDownTime_; }

  // Told of clicks if it answers QBVDashboardButtonDelegate.
  std::shared_ptr<qbv::Object> delegate() const { return delegate_.lock(); }
  void setDelegate(std::weak_ptr<qbv::Object> delegate) { delegate_ = std::move(delegate); }

 private:
  double clickDownTime_ = 0;
  std::weak_ptr<qbv::Object> delegate_;
};
