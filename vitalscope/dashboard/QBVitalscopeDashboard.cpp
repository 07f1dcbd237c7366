#include "vitalscope/dashboard/QBVitalscopeDashboard.h"

#include <cstdio>
#include <string>

#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeCPU.h"

using qbv::NSColor;
using qbv::platform;

namespace {

constexpr double kFullMegabytes = 1024.0;
constexpr double kYellowMegabytes = 600.0;
constexpr double kRedMegabytes = 1024.0;
constexpr double kColourAlpha = 0.6;

void onMainQueue(qbv::Block block) {
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), std::move(block));
}

std::string formatted(const char* format, double value) {
  char text[384];  // a double takes at most 309 digits before the point
  std::snprintf(text, sizeof text, format, value);
  return text;
}

}  // namespace

QBVitalscopeDashboard* QBVitalscopeDashboard::sharedInstance() {
  static auto* const owner =
      new std::shared_ptr<QBVitalscopeDashboard>(std::make_shared<QBVitalscopeDashboard>());
  return owner->get();
}

void QBVitalscopeDashboard::setup() {
  threshold_.store(kFullMegabytes, std::memory_order_relaxed);
  if (isShow())
    disappear();
  else
    show();
}

void QBVitalscopeDashboard::show() {
  // Everything that the monitor's queue touches is there before it can look.
  memoryWaveView();
  setMemoryStatus(-1);
  isShow_.store(true, std::memory_order_release);
  dashboardWindow()->makeKeyAndOrderFront();
  const std::shared_ptr<qbv::NSView>& content = dashboardWindow()->contentView();
  content->addSubview(memoryWaveView());
  content->setWantsLayer(true);
  content->layer()->setBackgroundColor(NSColor::clearColor());
  waveLayer()->startWave();
  QBVitalscopeMemoryMonitor::sharedInstance()->registerDelegate(shared_from_this());
}

void QBVitalscopeDashboard::disappear() {
  setIsShow(false);
  if (dashboardWindow_ != nullptr) dashboardWindow_->setIsVisible(false);
  if (waveLayer_ != nullptr) waveLayer_->stopWave();
  if (memoryWaveView_ == nullptr) return;
  memoryWaveView_->removeFromSuperview();
  memoryWaveView_ = nullptr;
}

void QBVitalscopeDashboard::windowWillClose(qbv::NSWindow&) {
  disappear();
  // The next one stands where the next display's edge is.
  dashboardWindow_ = nullptr;
}

void QBVitalscopeDashboard::qbvMemoryUsage(double megabytes) {
  if (!isShow_.load(std::memory_order_acquire)) return;
  setMemory(megabytes);
  waveLayer()->setTotalValue(threshold());
  waveLayer()->setTargetValue(megabytes);
  const auto apply = [this](NSColor color, std::int64_t status) {
    refreshWaveUI(color.colorWithAlphaComponent(kColourAlpha), status);
  };
  if (megabytes < kYellowMegabytes)
    apply(NSColor::greenColor(), 0);
  else if (megabytes < kRedMegabytes)
    apply(NSColor::yellowColor(), 1);
  else
    apply(NSColor::redColor(), 2);
}

void QBVitalscopeDashboard::refreshWaveUI(NSColor color, std::int64_t newMemoryStatus) {
  const std::shared_ptr<QBVitalscopeDashboard> self = shared_from_this();
  if (newMemoryStatus != memoryStatus()) {
    setMemoryStatus(newMemoryStatus);
    onMainQueue([self, color] {
      self->waveLayer()->setBackgroundColor(color);
      self->memoryWaveView()->layer()->setBorderColor(color);
    });
  }
  const double cpuUsage = QBVitalscopeCPU::cpuUsageForApp();
  onMainQueue([self, cpuUsage] {
    self->memoryLabel()->setString(formatted("%.2fM", self->memory()));
    self->cpuUsageLabel()->setString(formatted("CPU:%.0f%%", cpuUsage));
  });
}
