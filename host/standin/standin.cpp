#include "host/standin/standin.h"

#include <string>

#include "host/control/protocol.h"
#include "host/quibvitalscope_host.h"
#include "host/quibvitalscope_host.hpp"
#include "host/standin/activity.h"
#include "host/standin/control_socket.h"
#include "vitalscope/control/QBVTool.h"
#include "vitalscope/hang/QBVitalscopeANRMonitor.h"
#include "vitalscope/platform/linux/log_sinks.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/profiler/QBVTimeProfiler.h"

namespace qbv::standin {

namespace {

std::optional<std::string> profile(bool on) {
  QBVTimeProfiler& profiler = *QBVTimeProfiler::sharedInstance();
  if (!profiler.switchTo(on)) return std::nullopt;
  return on ? std::string() : profiler.resultValuePath();
}

// A command that ends sooner was none that anybody would have watched.
constexpr std::uint64_t kWorthMentioning = 10 * NSEC_PER_SEC;

void giveAnswers(const Settings& settings) {
  host::answerEmail([email = settings.email] { return email; });
  host::answerKeepsLogs([keepsLogs = settings.keepsLogs] { return keepsLogs; });
  const std::string executable = platform().hostInfo.processName();
  host::setBundleValue("CFBundleIdentifier", settings.bundleId);
  host::setBundleValue("CFBundleVersion", settings.version);
  host::setBundleValue("CFBundleShortVersionString", settings.version);
  host::setBundleValue("CFBundleExecutable", executable);
  host::setBundleValue("CFBundleName", executable);
}

void onHostEvent(const char* name, NotificationHandler handler) {
  platform().notifications.defaultCenter().addObserver(name, std::move(handler));
}

}  // namespace

StandIn& StandIn::shared() {
  static StandIn* const instance = new StandIn;
  return *instance;
}

void StandIn::load(const Settings& settings) {
  loadedAt_ = platform().clock.monotonicNanoseconds();
  watchRunLoop_ = settings.watchRunLoop;
  giveAnswers(settings);
  if (settings.uploads) {
    uploads_ = new Uploads(settings.uploads);
    uploads_->offer();
  }
  observeHost();
  Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [this] { signIn(); });
}

void StandIn::observeHost() {
  onHostEvent(QBV_HOST_SIGNED_IN, [this](const Notification&) { signedIn_ = true; });
  onHostEvent(QBV_HOST_SIGNED_OUT, [this](const Notification&) { signedIn_ = false; });
  onHostEvent(QBV_HOST_WILL_TERMINATE, [this](const Notification&) { signedIn_ = false; });
  onHostEvent(QBV_HOST_DID_BECOME_ACTIVE, [this](const Notification&) { active_ = true; });
  onHostEvent(QBV_HOST_DID_RESIGN_ACTIVE, [this](const Notification&) { active_ = false; });
  onHostEvent(control::kWatchRunLoopNotification, [this](const Notification&) { watchRunLoop(); });
}

void StandIn::signIn() {
  mainLoopSeenAt_ = platform().clock.monotonicNanoseconds();
  host::post(QBV_HOST_SIGNED_IN);
  if (watchRunLoop_) watchRunLoop();
  Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_global_queue(), [this] { watchApplication(); });
}

void StandIn::watchRunLoop() {
  if (host::watchRunLoop()) watchingRunLoop_ = true;
}

void StandIn::watchApplication() {
  if (QBVTool::isInternalAccount()) {
    // The start sequence may still be on its way to the monitor, which hears nothing before it exists.
    QBVitalscopeANRMonitor::sharedInstance();
    startActivityWatch([this](bool active, const char* source) { setActive(active, source); });
  }
  openControlSocket({[](const std::string& name, const Value& userInfo) { host::post(name, userInfo); },
                     [this] { return status(); }, profile});
}

void StandIn::setActive(bool active, const char* source) {
  activitySource_ = source;
  if (active == active_) return;
  host::post(active ? QBV_HOST_DID_BECOME_ACTIVE : QBV_HOST_DID_RESIGN_ACTIVE);
}

void StandIn::reportMissingMainLoop() const {
  if (mainLoopSeenAt_ != 0 || platform().clock.monotonicNanoseconds() - loadedAt_ < kWorthMentioning) return;
  linux_backend::sendToSystemLog("/dev/log",
                                 "QuibVitalscope: saw no main loop in this program, so nothing was watched. "
                                 "A program with a loop of its "
                                 "own polls the main queue's descriptor; see docs/hosting.md.");
}

}  // namespace qbv::standin
