// The controller: listens to the host and starts and stops the monitors.
#pragma once

#include <functional>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/notifications.h"

// Notifications arrive on the thread that posts them; starting and stopping happen later, on the global
// queue, so a stop may overlap a start that is still going on. Nothing here is for signal handlers.
class QBV_EXPORT QBVitalscope {
 public:
  // What a debug notification switches.
  enum class DebugSwitch { dashboard, timeProfiler };

  // The one controller, made on the first call, never destroyed. Making it subscribes it to the debug
  // notifications "performance_dashboard" and "user_method_time_profile". Any thread.
  static QBVitalscope* sharedInstance();

  // Queues the measurement of the launch duration and starts listening to the host. Once, when the library is
  // loaded; starts nothing else.
  static void load();

  QBVitalscope(const QBVitalscope&) = delete;
  QBVitalscope& operator=(const QBVitalscope&) = delete;

  // Listens to sign-in ("Noti_Login_FB_Login_Finished"), sign-out ("Noti_LogOut") and termination
  // ("Noti_KXProcessWillTerminate") on the default centre. Each call subscribes once more.
  void addObserverForLogin();

  // Each queues its work on the global queue and returns. Starting passes the host's gates (QBVTool);
  // stopping what does not run is harmless. Any thread.
  void startPerformanceMonitor();
  void cancelPerformanceMonitor();

  // For a host that wants the monitors to stop when it is no longer frontmost; nobody calls it here.
  void appLifeCycleResignActiveNotify(const qbv::Notification& notification);

  // Throws the switch that belongs to the notification's name, on the calling thread; other names do nothing.
  void notiPerformanceDebug(const qbv::Notification& notification);

  // Plugs in what a switch does; without it the notification does nothing. For load, before the host posts.
  void setDebugAction(DebugSwitch which, std::function<void()> action);

 private:
  QBVitalscope();
  ~QBVitalscope() = default;

  std::function<void()> toggleDashboard_;
  std::function<void()> toggleTimeProfiler_;
};
