#include "vitalscope/dashboard/QBVDashboardWaveLayer.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "vitalscope/dashboard/NSBezierPath_CGPath.h"
#include "vitalscope/platform/platform.h"

using qbv::NSColor;
using qbv::platform;

namespace {

constexpr double kLevelCap = 0.85;
constexpr double kAmplitudeFactor = 1.3f;  // single precision: the wave has always been this high
constexpr double kAmplitudeDivisor = 80.0;
constexpr float kSamplingStep = 2.0f;
constexpr double kPhaseStep = 0.12732395447351627;
constexpr std::uint64_t kFrameNanoseconds = 30'000'000;

double phase = 0;

void addWave(qbv::NSBezierPath& path, double width, double level) {
  const double waveNumber = 2 * std::numbers::pi / width;
  const double amplitude = width * kAmplitudeFactor / kAmplitudeDivisor;
  for (float x = 0; static_cast<double>(x) <= width; x += kSamplingStep) {
    const double across = static_cast<double>(x);
    path.lineToPoint({across, level + amplitude * std::sin(phase + waveNumber * across)});
  }
}

}  // namespace

QBVDashboardWaveLayer::QBVDashboardWaveLayer() {
  setFillColor(NSColor::whiteColor().colorWithAlphaComponent(0.6));
  setBackgroundColor(NSColor::greenColor().colorWithAlphaComponent(0.6));
}

QBVDashboardWaveLayer::~QBVDashboardWaveLayer() {
  stopWave();
}

void QBVDashboardWaveLayer::startWave() {
  stopWave();
  qbv::Dispatch& dispatch = platform().dispatch;
  setWaveTimer(dispatch.dispatch_source_create(dispatch.dispatch_get_main_queue()));
  dispatch.dispatch_source_set_timer(waveTimer_, kFrameNanoseconds, 0);
  dispatch.dispatch_source_set_event_handler(waveTimer_, [weak = weak_from_this()] {
    if (const auto layer = std::static_pointer_cast<QBVDashboardWaveLayer>(weak.lock()))
      layer->setCurrentWaveLayerPath();
  });
  dispatch.dispatch_resume(waveTimer_);
}

void QBVDashboardWaveLayer::stopWave() {
  if (waveTimer_ == nullptr) return;
  platform().dispatch.dispatch_source_cancel(waveTimer_);
  setWaveTimer(nullptr);
}

void QBVDashboardWaveLayer::setCurrentWaveLayerPath() {
  const double width = frame().size.width;
  const double height = frame().size.height;
  const double target = targetValue();
  const double total = totalValue();
  if (width == 0 || target == 0 || total == 0) return;
  setPath(nullptr);
  const double level = width * std::min(target / total, kLevelCap);
  qbv::NSBezierPath path;
  path.moveToPoint({0, level});
  if (width >= 0) addWave(path, width, level);
  path.lineToPoint({width, height});
  path.lineToPoint({0, height});
  path.closePath();
  phase += kPhaseStep;
  setPath(qbv::CGPath(path));
}
