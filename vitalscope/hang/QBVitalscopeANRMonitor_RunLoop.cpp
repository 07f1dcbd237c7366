#include "vitalscope/hang/QBVitalscopeANRMonitor_RunLoop.h"

#include <limits>
#include <tuple>

#include "vitalscope/hang/QBVitalscopeApplicationEvent.h"
#include "vitalscope/hang/busy_stretch.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"
#include "vitalscope/probes/QBVitalscopeCPU.h"

using qbv::CFRunLoopActivity;
using qbv::CFRunLoopObserverRef;
using qbv::platform;
using qbv::TimeValue;

namespace {

constexpr std::uint64_t kBlockMicroseconds = 2'000'000;
constexpr double kBusyPercent = 70.0;
constexpr std::uint32_t kCheckMicroseconds = 1'000'000;
constexpr std::int64_t kFirst = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max();

constinit qbv::BusyStretch runLoopStretch;
constinit qbv::BusyStretch eventStretch;

// The first observer to hear of an activity.
void myRunLoopBeginCallback(CFRunLoopObserverRef, CFRunLoopActivity activity, void*) {
  switch (activity) {
    case qbv::kCFRunLoopEntry:
      runLoopStretch.setBusy(true);
      break;
    case qbv::kCFRunLoopBeforeTimers:
    case qbv::kCFRunLoopBeforeSources:
    case qbv::kCFRunLoopAfterWaiting:
      if (runLoopStretch.busy()) break;
      runLoopStretch.setBegin(platform().clock.gettimeofday());
      runLoopStretch.setBusy(true);
      break;
    default:
      break;
  }
}

// And the last.
void myRunLoopEndCallback(CFRunLoopObserverRef, CFRunLoopActivity activity, void*) {
  switch (activity) {
    case qbv::kCFRunLoopBeforeWaiting:
      runLoopStretch.setBusy(false);
      runLoopStretch.setBegin(platform().clock.gettimeofday());
      break;
    case qbv::kCFRunLoopExit:
      runLoopStretch.setBusy(false);
      break;
    default:
      break;
  }
}

qbv::id sharedObject(qbv::id self, qbv::SEL) {
  static const qbv::id instance = platform().runtime.createInstance(reinterpret_cast<qbv::Class>(self));
  return instance;
}

bool isEarlier(TimeValue one, TimeValue other) {
  return std::tie(one.tv_sec, one.tv_usec) < std::tie(other.tv_sec, other.tv_usec);
}

}  // namespace

QBVitalscopeANRMonitor_RunLoop* QBVitalscopeANRMonitor_RunLoop::sharedInstance() {
  static QBVitalscopeANRMonitor_RunLoop* const instance = new QBVitalscopeANRMonitor_RunLoop;
  return instance;
}

QBVitalscopeANRMonitor_RunLoop::QBVitalscopeANRMonitor_RunLoop() = default;
QBVitalscopeANRMonitor_RunLoop::~QBVitalscopeANRMonitor_RunLoop() = default;

void QBVitalscopeANRMonitor_RunLoop::load() {
  qbv::ClassDefinition(platform().runtime, "QBVitalscopeANRMonitor_RunLoop")
      .classMethod("sharedInstance", sharedObject)
      .method(
          "start", +[](qbv::id, qbv::SEL) { sharedInstance()->start(); });
}

void QBVitalscopeANRMonitor_RunLoop::start() {
  addRunLoopObserver();
  addMonitorThread();
  eventHandler_ = std::make_unique<QBVitalscopeApplicationEvent>();
  eventHandler_->trySwizzle();
}

void QBVitalscopeANRMonitor_RunLoop::addRunLoopObserver() {
  qbv::RunLoop& loops = platform().runLoop;
  m_runLoopBeginObserver_ =
      loops.CFRunLoopObserverCreate(qbv::kCFRunLoopAllActivities, true, kFirst, myRunLoopBeginCallback, this);
  m_runLoopEndObserver_ =
      loops.CFRunLoopObserverCreate(qbv::kCFRunLoopAllActivities, true, kLast, myRunLoopEndCallback, this);
  qbv::RunLoop* const current = loops.currentRunLoop();
  if (current == nullptr) return;
  current->CFRunLoopAddObserver(m_runLoopBeginObserver_, qbv::kCFRunLoopCommonModes);
  current->CFRunLoopAddObserver(m_runLoopEndObserver_, qbv::kCFRunLoopCommonModes);
}

void QBVitalscopeANRMonitor_RunLoop::addMonitorThread() {
  m_monitorThread_ = platform().dispatch.startThread("quib run loop", [this] { threadMonitorring(); });
}

void QBVitalscopeANRMonitor_RunLoop::threadMonitorring() {
  for (;;) {
    if (checkMainThreadIsBlock()) logMainThread();
    platform().clock.usleep(kCheckMicroseconds);
  }
}

bool QBVitalscopeANRMonitor_RunLoop::checkMainThreadIsBlock() const {
  // Busy or not before since when, and both before the present: what changes in between shortens the stretch.
  const bool runLoopBusy = runLoopStretch.busy();
  const TimeValue runLoopBegin = runLoopStretch.begin();
  const bool eventBusy = eventStretch.busy();
  const TimeValue eventBegin = eventStretch.begin();
  const TimeValue now = platform().clock.gettimeofday();
  const auto lastsTooLong = [&](bool busy, TimeValue begin) {
    return busy && begin.tv_sec != 0 && begin.tv_usec != 0 && isEarlier(begin, now) &&
           diffTime(begin, now) > kBlockMicroseconds;
  };
  return lastsTooLong(runLoopBusy, runLoopBegin) || lastsTooLong(eventBusy, eventBegin) ||
         QBVitalscopeCPU::cpuUsageForApp() > kBusyPercent;
}

void QBVitalscopeANRMonitor_RunLoop::logMainThread() {
  const std::string backtrace = QBVitalscopeBacktrace::qbv_backtraceOfMainThread();
  bool same = false;
  {
    const std::lock_guard lock(reportInfoLock_);
    same = backtrace == reportInfo_;
    if (!same) reportInfo_ = backtrace;
  }
  platform().log.NSLog(same ? "QBKorvaneANRMonitor_RunLoop same call stack"
                            : "QBKorvaneANRMonitor_RunLoop: \n" + backtrace);
}

std::string QBVitalscopeANRMonitor_RunLoop::reportInfo() const {
  const std::lock_guard lock(reportInfoLock_);
  return reportInfo_;
}

std::uint64_t QBVitalscopeANRMonitor_RunLoop::diffTime(TimeValue start, TimeValue end) const {
  return static_cast<std::uint64_t>((end.tv_sec - start.tv_sec) * 1'000'000 + end.tv_usec - start.tv_usec);
}

void QBVitalscopeANRMonitor_RunLoop::signalEventStart() {
  eventStretch.setBegin(platform().clock.gettimeofday());
  eventStretch.setBusy(true);
}

void QBVitalscopeANRMonitor_RunLoop::signalEventEnd() {
  eventStretch.setBusy(false);
}
