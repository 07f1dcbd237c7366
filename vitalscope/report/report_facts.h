// The text of a report from plain facts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vitalscope/platform/value.h"
#include "vitalscope/report/QBVReportFunctions.h"
#include "vitalscope/report/QBVSystemFacts.h"
#include "vitalscope/report/image_list.h"

namespace qbv {

// All a report says. Text from outside is printed as it is, but for bytes that are no UTF-8.
struct ReportFacts {
  SystemFacts system;
  QBVReportReason reason = QBVReportReasonNone;
  std::string dateTime;
  std::int64_t allocMemoryLiveCount = 0;
  std::int64_t ocObjectLiveCount = 0;
  std::string backtrace;
  std::vector<ListedImage> images;
  Value extraData;                              // a dictionary or nil
  std::optional<std::string> appMemoryRecords;  // joins the extra data when there is one
};

// Pure functions. A whole report is header, "\n", backtrace, "\n", images, "\n", extra data.
std::string reportText(const ReportFacts& facts);

// The value, or "(null)".
std::string orNull(const std::optional<std::string>& value);
std::string exceptionTypeText(QBVReportReason reason);
std::string exceptionLines(QBVReportReason reason);
std::string liveCountLines(std::int64_t allocMemoryLiveCount, std::int64_t ocObjectLiveCount);
std::string headerText(const SystemFacts& system, QBVReportReason reason, const std::string& dateTime,
                       std::int64_t allocMemoryLiveCount, std::int64_t ocObjectLiveCount);
// One line of JSON behind its label; "" when the dictionary is no valid JSON.
std::string extraDataLine(const Value& extraData, const std::optional<std::string>& appMemoryRecords);

}  // namespace qbv
