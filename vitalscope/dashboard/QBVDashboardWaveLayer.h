// The moving liquid level inside the dashboard's gauge.
#pragma once

#include <atomic>

#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/layers.h"

// Its background is the liquid; its shape, translucent white above a sine wave, is the air. The level is
// target / total of the width, 85 % at most. Main thread only, but for the two values. Owned by a shared
// pointer.
class QBV_EXPORT QBVDashboardWaveLayer : public qbv::CAShapeLayer {
 public:
  QBVDashboardWaveLayer();
  ~QBVDashboardWaveLayer() override;

  // A frame at once and then every 30 ms on the main queue, until stopWave. A wave that runs starts anew.
  // The last shape stays when it stops, and the phase goes on from where it was.
  void startWave();
  void stopWave();
  // Makes one frame and moves the phase, which all waves of the process share. Nothing happens, and the shape
  // stays, while the layer has no width or either value is 0.
  void setCurrentWaveLayerPath();

  // The present value and the one that fills the gauge, in one unit. Any thread; a frame may still see the
  // value before.
  double targetValue() const { return targetValue_.load(std::memory_order_relaxed); }
  void setTargetValue(double value) { targetValue_.store(value, std::memory_order_relaxed); }
  double totalValue() const { return totalValue_.load(std::memory_order_relaxed); }
  void setTotalValue(double value) { totalValue_.store(value, std::memory_order_relaxed); }

  const qbv::DispatchTimerRef& waveTimer() const { return waveTimer_; }
  void setWaveTimer(qbv::DispatchTimerRef timer) { waveTimer_ = std::move(timer); }

 private:
  std::atomic<double> targetValue_{0};
  std::atomic<double> totalValue_{0};
  qbv::DispatchTimerRef waveTimer_;
};
