// The window and the views of the dashboard.
#include "vitalscope/dashboard/QBVitalscopeDashboard.h"
#include "vitalscope/platform/platform.h"

using qbv::NSColor;
using qbv::NSRect;
using qbv::platform;

namespace {

constexpr double kSide = 100;
constexpr int kFloatingLevel = 21;

std::shared_ptr<qbv::NSTextView> makeLabel(NSRect frame, double fontSize) {
  auto label = std::make_shared<qbv::NSTextView>(frame);
  label->setAlignment(qbv::NSTextAlignment::center);
  label->setBackgroundColor(NSColor::clearColor());
  label->setTextColor(NSColor::blackColor().colorWithAlphaComponent(0.6));
  label->setFont(qbv::NSFont::labelFontOfSize(fontSize));
  label->setEditable(false);
  label->setSelectable(false);
  return label;
}

}  // namespace

const std::shared_ptr<qbv::NSWindow>& QBVitalscopeDashboard::dashboardWindow() {
  if (dashboardWindow_ != nullptr) return dashboardWindow_;
  const qbv::NSSize screen = platform().windows.mainScreenFrame().size;
  dashboardWindow_ =
      qbv::NSWindow::make({{screen.width - kSide, screen.height * 0.5}, {kSide, kSide}},
                          qbv::NSWindowStyleMaskNonactivatingPanel, qbv::NSBackingStoreType::buffered, false);
  dashboardWindow_->setBackgroundColor(NSColor::clearColor());
  dashboardWindow_->setLevel(kFloatingLevel);
  dashboardWindow_->setMovable(true);
  dashboardWindow_->setMovableByWindowBackground(true);
  dashboardWindow_->setDelegate(weak_from_this());
  return dashboardWindow_;
}

// An element is in its field before it asks for another: any of them may be asked for first.
const std::shared_ptr<qbv::NSView>& QBVitalscopeDashboard::memoryWaveView() {
  if (memoryWaveView_ != nullptr) return memoryWaveView_;
  memoryWaveView_ = std::make_shared<qbv::NSView>(NSRect{{0, 0}, {kSide, kSide}});
  memoryWaveView_->setWantsLayer(true);
  qbv::CALayer& layer = *memoryWaveView_->layer();
  layer.setCornerRadius(memoryWaveView_->bounds().size.width / 2);
  layer.setBorderWidth(1.0);
  layer.setBorderColor(NSColor::clearColor());
  layer.addSublayer(waveLayer());
  memoryWaveView_->addSubview(memoryLabel());
  memoryWaveView_->addSubview(cpuUsageLabel());
  memoryWaveView_->addSubview(dashboardButton());
  return memoryWaveView_;
}

const std::shared_ptr<QBVDashboardWaveLayer>& QBVitalscopeDashboard::waveLayer() {
  if (waveLayer_ != nullptr) return waveLayer_;
  waveLayer_ = std::make_shared<QBVDashboardWaveLayer>();
  waveLayer_->setFrame(memoryWaveView()->bounds());
  return waveLayer_;
}

const std::shared_ptr<qbv::NSTextView>& QBVitalscopeDashboard::memoryLabel() {
  if (memoryLabel_ == nullptr) memoryLabel_ = makeLabel({{0, 50}, {kSide, 20}}, 17);
  return memoryLabel_;
}

const std::shared_ptr<qbv::NSTextView>& QBVitalscopeDashboard::cpuUsageLabel() {
  if (cpuUsageLabel_ == nullptr) cpuUsageLabel_ = makeLabel({{0, 15}, {kSide, 20}}, 13);
  return cpuUsageLabel_;
}

const std::shared_ptr<QBVDashboardButton>& QBVitalscopeDashboard::dashboardButton() {
  if (dashboardButton_ != nullptr) return dashboardButton_;
  dashboardButton_ = std::make_shared<QBVDashboardButton>(NSRect{});
  dashboardButton_->setFrame(memoryWaveView()->bounds());
  dashboardButton_->setWantsLayer(true);
  dashboardButton_->layer()->setBackgroundColor(NSColor::clearColor());
  dashboardButton_->setDelegate(weak_from_this());
  return dashboardButton_;
}
