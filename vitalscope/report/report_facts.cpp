#include "vitalscope/report/report_facts.h"

namespace qbv {

std::string orNull(const std::optional<std::string>& value) {
  return value.value_or("(null)");
}

std::string exceptionTypeText(QBVReportReason reason) {
  switch (reason) {
    case QBVReportReasonMainThreadBlock:
      return "MainThread Block";
    case QBVReportReasonAppMemoryOversize:
      return "APP Memory Oversize";
    case QBVReportReasonObjectMemoryOversize:
      return "Object Memory Oversize";
    default:
      return "Unknown Reason";
  }
}

std::string exceptionLines(QBVReportReason reason) {
  return "Exception Type:   " + exceptionTypeText(reason) +
         "\n"
         "Exception Codes:   501\n"
         "Exception Note:    501\n";
}

std::string liveCountLines(std::int64_t allocMemoryLiveCount, std::int64_t ocObjectLiveCount) {
  return "Alloc Memory Live Count:    " + std::to_string(allocMemoryLiveCount) +
         "\n"
         "OC Object Live Count:    " +
         std::to_string(ocObjectLiveCount) + "\n";
}

std::string headerText(const SystemFacts& system, QBVReportReason reason, const std::string& dateTime,
                       std::int64_t allocMemoryLiveCount, std::int64_t ocObjectLiveCount) {
  std::string text;
  text += "Process:         " + orNull(system.processName) + " [" + orNull(system.processID) + "]\n";
  text += "Identifier:      " + orNull(system.bundleID) + "\n";
  text +=
      "Version:         " + orNull(system.bundleVersion) + " (" + orNull(system.bundleShortVersion) + ")\n";
  text += "Code Type:       " + orNull(system.cpuArchitecture) + "\n";
  text += "Parent Process:  ? [" + orNull(system.parentProcessID) + "]\n";
  text += "Responsible:      " + orNull(system.bundleID) + "\n";
  text += "Device Name:       " + orNull(system.deviceName) + "\n";
  text += "User Type:         Log Version\n";
  text += "\n";
  text += "Date/Time:       " + dateTime + "\n";
  text += "OS Version:      " + orNull(system.systemName) + " " + orNull(system.systemVersion) + "\n";
  text += "Report Version:      1\n";
  text += "\n";
  text += "Time Awake Since Boot:\n";
  text += "Crashed Thread:     Main Thread\n";
  text += "\n";
  text += exceptionLines(reason);
  text += "\n";
  text += "Termination Reason:   ANR\n";
  text += "Terminating Process:   " + orNull(system.processID) + "\n";
  text += "\n";
  text += liveCountLines(allocMemoryLiveCount, ocObjectLiveCount);
  return text;
}

std::string extraDataLine(const Value& extraData, const std::optional<std::string>& appMemoryRecords) {
  Value::Dictionary merged;
  if (const Value::Dictionary* given = extraData.dictionary()) merged = *given;
  if (appMemoryRecords) merged["AppMemoryRecords"] = *appMemoryRecords;
  const auto json = Value(std::move(merged)).jsonText();
  return json ? "extraData: " + *json + "\n" : "";
}

std::string reportText(const ReportFacts& facts) {
  return repairedUTF8(headerText(facts.system, facts.reason, facts.dateTime, facts.allocMemoryLiveCount,
                                 facts.ocObjectLiveCount) +
                      "\n" + facts.backtrace + "\n" +
                      binaryImagesText(facts.images, facts.system.bundleVersion) + "\n" +
                      extraDataLine(facts.extraData, facts.appMemoryRecords));
}

}  // namespace qbv
