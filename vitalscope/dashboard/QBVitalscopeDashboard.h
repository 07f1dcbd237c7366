// The small floating gauge that shows developers the process's memory and CPU use.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "vitalscope/dashboard/QBVDashboardButton.h"
#include "vitalscope/dashboard/QBVDashboardWaveLayer.h"
#include "vitalscope/memory/QBVMemoryMonitorDelegate.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/object.h"
#include "vitalscope/platform/views.h"

// A round gauge of 100 × 100 points at the right edge of the main screen. Its coloured level is the
// footprint, green, yellow from 600 MB and red from 1024 MB on, and moves as a wave; footprint and CPU use
// are written on it. While shown it hears of the footprint from the memory monitor once a second. Each
// showing registers with the monitor once more, and the monitor forgets nobody: after the n-th it is told n
// times a second.
//
// Main thread only, unless said otherwise. Owned by a shared pointer.
class QBV_EXPORT QBVitalscopeDashboard : public qbv::Object,
                                         public QBVMemoryMonitorDelegate,
                                         public QBVDashboardButtonDelegate,
                                         public qbv::NSWindowDelegate,
                                         public std::enable_shared_from_this<QBVitalscopeDashboard> {
 public:
  // The one dashboard, made on the first call and never destroyed. Any thread.
  static QBVitalscopeDashboard* sharedInstance();

  QBVitalscopeDashboard() = default;
  QBVitalscopeDashboard(const QBVitalscopeDashboard&) = delete;
  QBVitalscopeDashboard& operator=(const QBVitalscopeDashboard&) = delete;

  // Shows what is hidden, hides what is shown.
  void setup();
  void show();
  void disappear();

  // A new footprint in megabytes; left alone while hidden. The memory monitor's queue.
  void qbvMemoryUsage(double megabytes) override;
  // Colours the gauge if the status is another than before, and writes both labels anew; the CPU use is read
  // here and now, the views change on the main queue. The memory monitor's queue.
  void refreshWaveUI(qbv::NSColor color, std::int64_t newMemoryStatus);
  // Opens the newest report of this process with the user's application, if there is one.
  void qbvDashboardButtonMouseDown(const qbv::NSEvent& event) override;
  // The display is gone: hides, so that the next setup() shows again.
  void windowWillClose(qbv::NSWindow& window) override;

  // The elements, each made when first asked for. The gauge view is made anew after each disappear().
  const std::shared_ptr<qbv::NSWindow>& dashboardWindow();
  const std::shared_ptr<qbv::NSView>& memoryWaveView();
  const std::shared_ptr<QBVDashboardWaveLayer>& waveLayer();
  const std::shared_ptr<qbv::NSTextView>& memoryLabel();
  const std::shared_ptr<qbv::NSTextView>& cpuUsageLabel();
  const std::shared_ptr<QBVDashboardButton>& dashboardButton();

  // Any thread from here on. Footprint that fills the gauge, megabytes; 0 before the first setup().
  double threshold() const { return threshold_.load(std::memory_order_relaxed); }
  // Last footprint received while shown, megabytes.
  double memory() const { return memory_.load(std::memory_order_relaxed); }
  void setMemory(double megabytes) { memory_.store(megabytes, std::memory_order_relaxed); }
  bool isShow() const { return isShow_.load(std::memory_order_relaxed); }
  void setIsShow(bool shown) { isShow_.store(shown, std::memory_order_relaxed); }
  // -1 none since it was shown, 0 green, 1 yellow, 2 red.
  std::int64_t memoryStatus() const { return memoryStatus_.load(std::memory_order_relaxed); }
  void setMemoryStatus(std::int64_t status) { memoryStatus_.store(status, std::memory_order_relaxed); }
  // The host's launch duration in seconds, kept for others; 0 until it is measured.
  double launchTime() const { return launchTime_.load(std::memory_order_relaxed); }
  void setLaunchTime(double seconds) { launchTime_.store(seconds, std::memory_order_relaxed); }

 private:
  std::atomic<double> threshold_{0};
  std::atomic<double> memory_{0};
  std::atomic<bool> isShow_{false};
  std::atomic<std::int64_t> memoryStatus_{0};
  std::atomic<double> launchTime_{0};
  std::shared_ptr<qbv::NSWindow> dashboardWindow_;
  std::shared_ptr<qbv::NSView> memoryWaveView_;
  std::shared_ptr<QBVDashboardWaveLayer> waveLayer_;
  std::shared_ptr<qbv::NSTextView> memoryLabel_;
  std::shared_ptr<qbv::NSTextView> cpuUsageLabel_;
  std::shared_ptr<QBVDashboardButton> dashboardButton_;
};
