// Watches the traffic of the machine's drives.
#pragma once

#include <cstdint>
#include <mutex>

#include "vitalscope/platform/devices.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/repeating_timer.h"

// Counters of one direction, in bytes.
struct io_stats {
  std::uint64_t bytes_delta;     // since the sample before; 0 for the first, and when a drive has gone
  std::uint64_t bytes_prev;      // `bytes` of the sample before
  std::uint64_t bytes;           // all drives together, as of the last sample
  std::uint64_t bsd_bytes_prev;  // `bsd_bytes` of the sample before
  std::uint64_t bsd_bytes;       // this process's part since its start, 0 where the kernel keeps no account
};

// Once a second it adds up what all drives have read and written. Samples run on `queue`, one at a time. What
// other threads may ask is said below; nothing here is for signal handlers.
class QBV_EXPORT QBVIOMonitor {
 public:
  // The one monitor, made on the first call and never destroyed. Any thread.
  static QBVIOMonitor* sharedInstance();

  // Reachable for tests: an instance must live as long as the process.
  QBVIOMonitor();
  ~QBVIOMonitor() = default;
  QBVIOMonitor(const QBVIOMonitor&) = delete;
  QBVIOMonitor& operator=(const QBVIOMonitor&) = delete;

  // Any thread. `start` while started does nothing, otherwise it looks up the drives, unless it has them, and
  // the first sample comes at once. `stop` while stopped does nothing; a sample that is being taken goes on
  // to its end. The counters survive a stop.
  void start();
  void stop();
  bool isStart() const { return ticks_.isStart(); }
  // See RepeatingTimer.
  qbv::DispatchQueueRef queue() { return ticks_.queue(); }
  qbv::DispatchTimerRef timer() { return ticks_.timer(); }

  // Seconds between samples; a change counts from the next start. Any thread.
  double watchdogInterval() const { return ticks_.interval(); }
  void setWatchdogInterval(double seconds) { ticks_.setInterval(seconds); }

  // One sample. Samples only.
  void fetchIOInfo();

  // The drives that tell both counters; 0 before the first start. The iterator belongs to the samples: do not
  // walk it. Any thread.
  qbv::IOIterator drivelist() const;
  // Copies of the counters of reading and of writing. Any thread.
  io_stats i_dsk() const;
  io_stats o_dsk() const;

 private:
  qbv::RepeatingTimer ticks_;
  mutable std::mutex countersLock_;  // held for copies and single changes only
  qbv::IOIterator drivelist_ = 0;
  io_stats i_dsk_{};
  io_stats o_dsk_{};
  bool isSampled_ = false;
};

extern "C" {

// Adds up what the iterator's drives have read and written and puts the totals into `bytes` of the two
// records; no other field changes. Then resets the iterator, so that the next call meets all drives there are
// by then. An entry without the counters adds nothing. Any thread, but one at a time for an iterator.
QBV_EXPORT void getDISKcounters(qbv::IOIterator drivelist, io_stats* i_dsk, io_stats* o_dsk);

}  // extern "C"
