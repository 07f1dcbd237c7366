// Diagnostic reports: the folder tree, the text, the gate and the writing, keeping the tree small, the
// records of the day, and what the user asks for.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vitalscope/platform/clock.h"
#include "vitalscope/platform/dates.h"
#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/notifications.h"
#include "vitalscope/platform/value.h"
#include "vitalscope/report/QBVReportFunctions.h"
#include "vitalscope/report/QBVSystemFacts.h"

// Unless a function says otherwise: any thread, not in signal handlers; nothing throws; errors of the file
// system are ignored, so a folder that cannot be written loses the report and nothing else happens. Paths may
// hold "//", which names the same file as "/".
class QBV_EXPORT QBVitalscopeReport {
 public:
  // The one object, made on the first call and never destroyed.
  static QBVitalscopeReport* sharedInstance();

  // Reads the system facts and the start time, starts the timer of the daily records and listens to the
  // user's wishes; in log-keeping builds also makes the folders that others write to. Reachable for tests: an
  // instance must live as long as the process, background work refers to it.
  QBVitalscopeReport();
  ~QBVitalscopeReport();
  QBVitalscopeReport(const QBVitalscopeReport&) = delete;
  QBVitalscopeReport& operator=(const QBVitalscopeReport&) = delete;

  // ---- Folders and names (layout.cpp)
  // -------------------------------------------------------------------------------

  // "~/Library/Logs/quibapp/Diagnostic/" and the process id, with "~" expanded. Every file of this process
  // lies below it. The root and the fixed folders are composed once per process; a forked child gets its own.
  std::string localLogFolderRootPath() const;
  // Fixed folders below the root. Asking makes no folder.
  std::string appMemoryOversizePath() const;
  std::string objectMemoryOversizePath() const;
  std::string leaksReportPath() const;
  std::string powerReportPath() const;
  std::string dumpReportPath() const;
  std::string inspectInfoRecordPath() const;
  std::string sampleLogPath() const;
  // Parent of the five hang-level folders; makes no folder.
  std::string freezeRootPath() const;
  // "/light" to "/freeze" for 1 to 5, "" for other levels.
  std::string stuckLevelPath(unsigned level) const;
  // Folder of a hang level; makes it on every call. A level outside 1..5 gives the freeze root and a "/".
  std::string freezeStuckLogPath(unsigned level) const;

  // Makes the folder and its missing parents, unless something exists there.
  void createDirectory(const std::string& path) const;
  // Prepares the tree before a report of this reason is written. In builds that keep no logs this removes
  // every folder but the freeze tree, with all it holds.
  void createRootDirWithReason(QBVReportReason reason) const;
  // Path of a report file; for a reason without reports ".hang" alone, which must not be written. Makes the
  // level folder of a hang report. `level` and `isSample` count for hang reports only.
  std::string localFilePathWithReportId(const std::string& reportId, QBVReportReason reason, unsigned level,
                                        bool isSample) const;
  // Today as "yyyy_MM_dd".
  std::string currentDateStr() const;

  // A formatter for report ids in file names (true) or for the "Date/Time" line (false).
  static qbv::DateFormatter createDateFormatterInFileName(bool inFileName);
  // Which folder below the root the upload in progress is about; for the host's uploader, while it handles a
  // request.
  static std::string currentFirstLevelDirPath();

  // ---- Text (report_text.cpp)
  // ---------------------------------------------------------------------------------------

  // Fills the system facts below from the platform.
  void initSystemInfo();
  // The header, down to the two live counts.
  std::string headerStringForSystemInfo(QBVReportReason reason) const;
  std::string exceptionTypeStr(QBVReportReason reason) const;
  void addWrap(std::string& text) const;
  void addHeaderExceptionInfo(std::string& text, QBVReportReason reason) const;
  void addObjectCountInfo(std::string& text) const;
  // The list of loaded images. Reads the description of each image, nothing else.
  std::string binaryImagesInfo() const;
  // 16 bytes as 8-4-4-4-12 upper-case digits; nothing for null.
  std::optional<std::string> formatUUID(const unsigned char* bytes) const;
  // "" when the platform does not know.
  std::string getCurrentCPUArch() const;
  // A whole report. `extraData` is a dictionary or nil; when it is no valid JSON its line is left out. The
  // report id is not printed.
  std::string generateReportStr(const std::string& backtrace, QBVReportReason reason,
                                const std::string& reportId, const qbv::Value& extraData) const;
  // The host's version, as stored at creation.
  std::optional<std::string> currentBundleVersion() const;

  // System facts, as they were when the object was made. A missing one prints as "(null)". The setters are
  // for the time before reports are written: they take no lock.
  const std::optional<std::string>& systemName() const { return system_.systemName; }
  const std::optional<std::string>& systemVersion() const { return system_.systemVersion; }
  const std::optional<std::string>& bundleID() const { return system_.bundleID; }
  const std::optional<std::string>& bundleVersion() const { return system_.bundleVersion; }
  const std::optional<std::string>& bundleShortVersion() const { return system_.bundleShortVersion; }
  const std::optional<std::string>& deviceName() const { return system_.deviceName; }
  const std::optional<std::string>& cpuArchitecture() const { return system_.cpuArchitecture; }
  const std::optional<std::string>& processName() const { return system_.processName; }
  const std::optional<std::string>& processID() const { return system_.processID; }
  const std::optional<std::string>& parentProcessID() const { return system_.parentProcessID; }
  const std::optional<std::string>& executableName() const { return system_.executableName; }
  const std::optional<std::string>& bundleName() const { return system_.bundleName; }
  const std::optional<std::string>& timezone() const { return system_.timezone; }
  void setSystemName(std::optional<std::string> value) { system_.systemName = std::move(value); }
  void setSystemVersion(std::optional<std::string> value) { system_.systemVersion = std::move(value); }
  void setBundleID(std::optional<std::string> value) { system_.bundleID = std::move(value); }
  void setBundleVersion(std::optional<std::string> value) { system_.bundleVersion = std::move(value); }
  void setBundleShortVersion(std::optional<std::string> value) {
    system_.bundleShortVersion = std::move(value);
  }
  void setDeviceName(std::optional<std::string> value) { system_.deviceName = std::move(value); }
  void setCpuArchitecture(std::optional<std::string> value) { system_.cpuArchitecture = std::move(value); }
  void setProcessName(std::optional<std::string> value) { system_.processName = std::move(value); }
  void setProcessID(std::optional<std::string> value) { system_.processID = std::move(value); }
  void setParentProcessID(std::optional<std::string> value) { system_.parentProcessID = std::move(value); }
  void setExecutableName(std::optional<std::string> value) { system_.executableName = std::move(value); }
  void setBundleName(std::optional<std::string> value) { system_.bundleName = std::move(value); }
  void setTimezone(std::optional<std::string> value) { system_.timezone = std::move(value); }

  // ---- Gate and writing (writer.cpp)
  // --------------------------------------------------------------------------------

  // Captures the backtraces of all threads but the calling one and reports.
  void reportWithReason(QBVReportReason reason, unsigned level, const qbv::Value& extraData);
  // The way in for every monitor. Refuses reports that come too early after start or too soon after the one
  // before; otherwise writes one on the calling thread. The report's id, or "" when refused or when there was
  // nothing to write. A report that passes counts as the last one even if nothing is then written.
  std::string reportWithBacktrace(const std::optional<std::string>& backtrace, QBVReportReason reason,
                                  unsigned level, const qbv::Value& extraData);
  // The two tests of the gate, on the state of this moment: past the warm-up of the reason; far enough from
  // the last report.
  bool enbleFirstReportInTimeScope(QBVReportReason reason) const;
  bool enableReportInTime(QBVReportReason reason) const;
  // Writes one report without asking the gate. Its id, or "" for a missing or empty backtrace and for
  // reason 2.
  std::string writeToDiskWithBacktrace(const std::optional<std::string>& backtrace, QBVReportReason reason,
                                       unsigned level, const qbv::Value& extraData);
  // Prepares the folders, writes the text and starts a trimming pass. The path.
  std::string writeToLocal(const std::string& text, QBVReportReason reason, unsigned level,
                           const std::string& reportId);
  // Writes the output of a leak check, unchanged, on the global queue, and opens it for the user. Returns at
  // once.
  void writeToDiskWithLeaksInfo(const std::string& leaksInfo);
  // What every file of the framework is written with. Log-keeping builds append, others replace the file in
  // one step. A new file that cannot be filled does not stay.
  static void writeData(const std::optional<std::string>& text, const std::optional<std::string>& path);

  // Gate state. Seconds of absolute time; 0 until a report has passed.
  qbv::AbsoluteTime startTime() const;
  QBVReportReason lastReportReason() const;
  unsigned lastReportLevel() const;
  qbv::AbsoluteTime reportTimeValue() const;
  void setStartTime(qbv::AbsoluteTime time);
  void setLastReportReason(QBVReportReason reason);
  void setLastReportLevel(unsigned level);
  void setReportTimeValue(qbv::AbsoluteTime time);

  // What the upload in progress is about; kept for the host by the uploader.
  QBVReportReason currentUploadReason() const { return currentUploadReason_.load(std::memory_order_relaxed); }
  unsigned currentUploadANRLevel() const { return currentUploadANRLevel_.load(std::memory_order_relaxed); }
  void setCurrentUploadReason(QBVReportReason reason) {
    currentUploadReason_.store(reason, std::memory_order_relaxed);
  }
  void setCurrentUploadANRLevel(unsigned level) {
    currentUploadANRLevel_.store(level, std::memory_order_relaxed);
  }

  // ---- Retention (retention.cpp)
  // ------------------------------------------------------------------------------------

  // Removes entries of the host's log folder that carry "quibapp.app" in their name and were made 8 or more
  // calendar days ago. Runs on the calling thread. An entry whose date cannot be read stays.
  void cleanLogFile();
  // One trimming pass each of the freeze tree, the app memory and the leaks folder, on the global queue.
  void innerRefreshFilesQuantity();
  void refreshFilesQuantity();
  // One trimming pass of the leaks folder, on the calling thread.
  void cleanOverLimitLeaksInfoFile();
  // One trimming pass: in a folder tree of 11 or more files the oldest one is removed.
  void removeOverTimeFile(const std::string& folder);
  // Appends every file at or below the path, hidden ones too, in listing order. Folders nested more than 16
  // deep (links that lead round in a circle) are not entered.
  void allLogFiles(const std::string& path, std::vector<std::string>& result) const;
  // Whole calendar days between the local days that hold the two moments.
  static long getDaysFrom(qbv::AbsoluteTime from, qbv::AbsoluteTime to);
  // The same paths, newest first by creation date; those without a readable date come last.
  static std::vector<std::string> getContentsOfDirectoryByTimeOrderAtPath(
      const std::vector<std::string>& paths);

  // ---- Records of the day (snapshots.cpp)
  // ------------------------------------------------------------------------------------

  // The timer that calls syncMemoryRecordsToDisk now and every 60 seconds once it is resumed; made on first
  // use.
  qbv::DispatchTimerRef syncMemoryRecordTimer();
  void setSyncMemoryRecordTimer(qbv::DispatchTimerRef timer);
  // Replaces today's file in the level-5 folder by the records of this moment, one line of JSON; by nothing
  // when they are no valid JSON. In builds that keep no logs nothing happens.
  void syncMemoryRecordsToDisk();
  // Writes records of hangs, a dictionary or an array, as readable JSON into today's file of the inspect info
  // folder, which it does not make. What is no valid JSON is not written.
  void syncANRRecordsToDisk(const qbv::Value& records);

  // ---- What the user asks for (user_actions.cpp)
  // ------------------------------------------------------------------------------------

  // Asks for an upload of every hang level that has reports, on the global queue. Returns at once.
  void userUploadLog();
  // The levels of the last user upload, ascending. A copy.
  std::vector<unsigned> uploadLogTypes() const;
  void setUploadLogTypes(std::vector<unsigned> levels);
  // Hang levels, ascending, whose folder holds anything. Makes the five folders, as the next two do with
  // theirs.
  std::vector<unsigned> allFreezeLogTypes() const;
  void addFreezeTypeWithANRLevel(unsigned level, std::vector<unsigned>& levels) const;
  // Newest first: 5 files of each of the levels 1 to 4 and 10 of level 5.
  std::vector<std::string> allFreezeLogFiles() const;
  // Every entry of the folder, hidden ones too, as folder, "/", name; in listing order.
  std::vector<std::string> fullPathFiles(const std::string& folder) const;
  // The newest `count` of a folder's entries, or of some paths.
  std::vector<std::string> logFiles(const std::string& folder, std::size_t count) const;
  std::vector<std::string> arrayOfDate(const std::vector<std::string>& paths, std::size_t count) const;
  // Shows the diagnostic folder in the file browser, or, with "subType" "freeze", lets the user choose a hang
  // level's folder and asks for its upload. The choice is asked for and answered on the main thread.
  // Log-keeping builds only. Showing waits for the opener to have been started.
  void openDiagnosticFolder(const qbv::Notification& notification);
  // Title of the button that confirms the choice: the host's, else "Select".
  std::string selectTitleStr() const;

 private:
  struct Gate;  // its state and the lock of one decision
  void createStandingFolders() const;
  void listenToUser();
  std::string dailyFile(const std::string& folder, const char* ending) const;
  void showDiagnosticFolder() const;
  void chooseFolderToUpload() const;
  bool passGate(QBVReportReason reason, unsigned level);

  qbv::SystemFacts system_;
  std::unique_ptr<Gate> gate_;
  std::atomic<QBVReportReason> currentUploadReason_{QBVReportReasonNone};
  std::atomic<unsigned> currentUploadANRLevel_{0};
  mutable std::mutex lock_;  // of the two below
  qbv::DispatchTimerRef syncMemoryRecordTimer_;
  std::vector<unsigned> uploadLogTypes_;
};
