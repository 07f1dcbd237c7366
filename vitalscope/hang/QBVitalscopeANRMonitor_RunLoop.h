// A second, lighter watch over the main thread: how long a pass of its loop or an event of it lasts.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "vitalscope/platform/clock.h"
#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/run_loop.h"

class QBVitalscopeApplicationEvent;

// Posts nothing to the main thread: two observers of its loop note when a busy stretch begins and ends, the
// event hook does so for each event, and a thread of its own looks once a second. When a stretch or an event
// has lasted more than 2 seconds, or the process uses more than 70 percent of a core, it writes the main
// thread's backtrace to the system log; reports and files it makes none. It asks no gate: it runs once the
// host has started it, and then as long as the process.
class QBV_EXPORT QBVitalscopeANRMonitor_RunLoop {
 public:
  // The one monitor, made on the first call and never destroyed; making it starts nothing. Any thread.
  static QBVitalscopeANRMonitor_RunLoop* sharedInstance();

  QBVitalscopeANRMonitor_RunLoop();
  ~QBVitalscopeANRMonitor_RunLoop();
  QBVitalscopeANRMonitor_RunLoop(const QBVitalscopeANRMonitor_RunLoop&) = delete;
  QBVitalscopeANRMonitor_RunLoop& operator=(const QBVitalscopeANRMonitor_RunLoop&) = delete;

  // Defines the run-time class of this name, by which a host that is not linked with this library reaches
  // the class message "sharedInstance" and its "start". Once, at load.
  static void load();

  // Main thread, once: a second call adds a second pair of observers and a second thread. On another thread
  // no loop is observed. There is no way to stop it.
  void start();

  // An event's dispatch begins and ends. Events that are dispatched within another one share one record: the
  // inner one's begin replaces the outer one's and its end ends both. The main thread.
  static void signalEventStart();
  static void signalEventEnd();

  // Microseconds from `start` to `end`, which must not be earlier.
  std::uint64_t diffTime(qbv::TimeValue start, qbv::TimeValue end) const;

  // What `start` made last; null before. The thread that called it.
  const qbv::DispatchThreadRef& m_monitorThread() const { return m_monitorThread_; }
  qbv::CFRunLoopObserverRef m_runLoopBeginObserver() const { return m_runLoopBeginObserver_; }
  qbv::CFRunLoopObserverRef m_runLoopEndObserver() const { return m_runLoopEndObserver_; }
  // Never made.
  qbv::CFRunLoopObserverRef m_initializationBeginRunloopObserver() const { return nullptr; }
  qbv::CFRunLoopObserverRef m_initializationEndRunloopObserver() const { return nullptr; }
  const QBVitalscopeApplicationEvent* eventHandler() const { return eventHandler_.get(); }

  // The backtrace that was logged last; "" before the first. Any thread.
  std::string reportInfo() const;

 private:
  void addRunLoopObserver();
  void addMonitorThread();
  [[noreturn]] void threadMonitorring();
  // Whether a stretch or an event lasts too long at this moment, or the process is too busy.
  bool checkMainThreadIsBlock() const;
  void logMainThread();

  qbv::DispatchThreadRef m_monitorThread_;
  qbv::CFRunLoopObserverRef m_runLoopBeginObserver_ = nullptr;
  qbv::CFRunLoopObserverRef m_runLoopEndObserver_ = nullptr;
  std::unique_ptr<QBVitalscopeApplicationEvent> eventHandler_;
  mutable std::mutex reportInfoLock_;  // held for a comparison and a copy
  std::string reportInfo_;
};
