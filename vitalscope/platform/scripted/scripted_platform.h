// A whole platform made of doubles, for tests of monitors and of hosts.
#pragma once

#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/portable/class_table.h"
#include "vitalscope/platform/scripted/scripted_allocator.h"
#include "vitalscope/platform/scripted/scripted_clock.h"
#include "vitalscope/platform/scripted/scripted_dates.h"
#include "vitalscope/platform/scripted/scripted_devices.h"
#include "vitalscope/platform/scripted/scripted_dispatch.h"
#include "vitalscope/platform/scripted/scripted_files.h"
#include "vitalscope/platform/scripted/scripted_host_info.h"
#include "vitalscope/platform/scripted/scripted_images.h"
#include "vitalscope/platform/scripted/scripted_log.h"
#include "vitalscope/platform/scripted/scripted_notifications.h"
#include "vitalscope/platform/scripted/scripted_processes.h"
#include "vitalscope/platform/scripted/scripted_run_loop.h"
#include "vitalscope/platform/scripted/scripted_task.h"
#include "vitalscope/platform/scripted/scripted_windows.h"

namespace qbv {

// Installs itself as platform() until it is destroyed. Monitors are singletons that outlive a test: make one
// scripted platform per process, before the first monitor, and keep it to the end.
//   qbv::ScriptedPlatform scripted;
//   scripted.task.setFootprintMegabytes(300);
//   ...start a monitor...
//   scripted.advance(1.0);          // its timer fires, here and now
//   scripted.runLoop.drain();       // the main thread answers
class ScriptedPlatform {
 public:
  ScriptedPlatform() = default;
  ScriptedPlatform(const ScriptedPlatform&) = delete;
  ScriptedPlatform& operator=(const ScriptedPlatform&) = delete;

  // See ScriptedDispatch.
  void advance(double seconds) { dispatch.advance(seconds); }
  bool runUntilIdle() { return dispatch.runUntilIdle(); }

  ScriptedClock clock;
  ScriptedTask task;
  ScriptedImages images;
  ClassTable runtime;
  ScriptedDispatch dispatch{clock};
  ScriptedRunLoop runLoop{dispatch, runtime};
  ScriptedNotifications notifications;
  ScriptedProcesses processes;
  ScriptedFiles files{clock};
  ScriptedDates dates;
  ScriptedLog log;
  ScriptedHostInfo hostInfo;
  ScriptedAllocator allocator;
  ScriptedDevices devices;
  ScriptedWindows windows;

 private:
  Platform areas_{task,  images, runtime, dispatch, runLoop,   notifications, processes, files,
                  clock, dates,  log,     hostInfo, allocator, devices,       windows};
  ScopedPlatform installed_{areas_};
};

}  // namespace qbv
