#include "vitalscope/control/QBVitalscope.h"

#include <utility>

#include "vitalscope/control/QBVLaunchManager.h"
#include "vitalscope/control/monitors.h"
#include "vitalscope/platform/platform.h"

using qbv::platform;

namespace {

constexpr char kDashboardNotification[] = "performance_dashboard";
constexpr char kTimeProfilerNotification[] = "user_method_time_profile";

void onGlobalQueue(qbv::Block block) {
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_global_queue(), std::move(block));
}

}  // namespace

QBVitalscope* QBVitalscope::sharedInstance() {
  static QBVitalscope* const instance = new QBVitalscope;
  return instance;
}

QBVitalscope::QBVitalscope() {
  qbv::NotificationCentre& host = platform().notifications.defaultCenter();
  for (const char* name : {kDashboardNotification, kTimeProfilerNotification})
    host.addObserver(name, [this](const qbv::Notification& event) { notiPerformanceDebug(event); });
}

void QBVitalscope::load() {
  QBVLaunchManager::askStartTime();
  sharedInstance()->addObserverForLogin();
}

void QBVitalscope::addObserverForLogin() {
  qbv::NotificationCentre& host = platform().notifications.defaultCenter();
  host.addObserver("Noti_Login_FB_Login_Finished",
                   [this](const qbv::Notification&) { startPerformanceMonitor(); });
  host.addObserver("Noti_LogOut", [this](const qbv::Notification&) { cancelPerformanceMonitor(); });
  host.addObserver("Noti_KXProcessWillTerminate",
                   [this](const qbv::Notification&) { cancelPerformanceMonitor(); });
}

void QBVitalscope::startPerformanceMonitor() {
  onGlobalQueue([] { qbv::startMonitors(qbv::monitors()); });
}

void QBVitalscope::cancelPerformanceMonitor() {
  onGlobalQueue([] { qbv::stopMonitors(qbv::monitors()); });
}

void QBVitalscope::appLifeCycleResignActiveNotify(const qbv::Notification&) {
  cancelPerformanceMonitor();
}

void QBVitalscope::notiPerformanceDebug(const qbv::Notification& notification) {
  if (notification.name == kDashboardNotification && toggleDashboard_) toggleDashboard_();
  if (notification.name == kTimeProfilerNotification && toggleTimeProfiler_) toggleTimeProfiler_();
}

void QBVitalscope::setDebugAction(DebugSwitch which, std::function<void()> action) {
  (which == DebugSwitch::dashboard ? toggleDashboard_ : toggleTimeProfiler_) = std::move(action);
}
