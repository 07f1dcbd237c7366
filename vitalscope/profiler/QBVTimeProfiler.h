// Switches the message-send hook on and off and shows what it recorded.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "vitalscope/platform/export.h"
#include "vitalscope/profiler/QBVTimeProfilerRecord.h"

// A run times the message sends of the main thread; at its end the calls that took long enough become a page
// in the folder "inspect" of the diagnostic tree and a file of the same content for programs. Any thread, not
// in signal handlers; a run begins and ends on the calling thread, which is better not the main one: begin
// may wait for a dlopen under way.
class QBV_EXPORT QBVTimeProfiler {
 public:
  // The one profiler, made on the first call and never destroyed.
  static QBVTimeProfiler* sharedInstance();

  QBVTimeProfiler() = default;
  ~QBVTimeProfiler() = default;
  QBVTimeProfiler(const QBVTimeProfiler&) = delete;
  QBVTimeProfiler& operator=(const QBVTimeProfiler&) = delete;

  // Whether a run is on, as far as refreshStatus and switchTo know: from when the hook is in place until the
  // results have been written.
  bool on() const { return on_; }
  // Starts a run or stops it; `on` stays as it is, so the next refreshStatus flips from there.
  void setOn(bool on);
  // On the global queue, later: only calls longer than 100 ms count from now on; then starts a run if none is
  // on, or stops it and shows its page. Two that are asked for at once happen one after the other.
  void refreshStatus();
  // The same as refreshStatus, on this thread, unless `on` is so already (then false). Opens no page.
  bool switchTo(bool on);
  // Runs that refreshStatus and switchTo have finished so far; their files have been written by then.
  std::uint64_t finishedRuns() const { return finishedRuns_; }

  // The page, and beside it what programs read: UTF-8 JSON as profileValue describes it, made anew by each
  // run.
  std::string resultFilePath() const;
  std::string resultValuePath() const;

  // Begins the hook and removes the files of the run before.
  static void startRecord();
  // Ends the hook, shows what was recorded and forgets it.
  static void stopRecord();
  static void clearRecords();
  // Writes both files and has the main queue open the page with the user's viewer.
  static void showRecords();

  // The page's text.
  static std::string getRecordsResult();
  // Appends the record's line and, depth first, those below it.
  static void appendRecord(const QBVTimeProfilerRecord& record, std::string& to);
  // The outermost recorded calls, earliest first, each with the calls made from it, latest first. Before the
  // hook has ended the main thread may be writing: the caller sees to that.
  static QBVTimeProfilerRecords getRecords();

  // Shorter calls, and those that took exactly so long, are not recorded. Negative values count as 0.
  static void setMinCallCost(double milliseconds);
  // Calls this deep are still recorded, and one deeper. Negative values count as 0.
  static void setMaxCallDepth(std::int32_t depth);

 private:
  void flip();

  std::mutex flipping_;
  std::atomic<bool> on_{false};
  std::atomic<std::uint64_t> finishedRuns_{0};
};
