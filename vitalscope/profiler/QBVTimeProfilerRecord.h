// One recorded call of a profiling run, with the calls made from it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vitalscope/platform/export.h"

class QBVTimeProfilerRecord;
using QBVTimeProfilerRecords = std::vector<std::shared_ptr<QBVTimeProfilerRecord>>;

// A plain value: one thread at a time.
class QBV_EXPORT QBVTimeProfilerRecord {
 public:
  bool isClassMethod() const { return isClassMethod_; }  // the call went to a class
  const std::string& className() const { return className_; }
  const std::string& methodName() const { return methodName_; }
  double timeCost() const { return timeCost_; }           // seconds, the calls made from it included
  std::uint64_t callDepth() const { return callDepth_; }  // 0: outermost on the main thread
  const std::optional<QBVTimeProfilerRecords>& subRecords() const { return subRecords_; }  // latest first

  void setIsClassMethod(bool value) { isClassMethod_ = value; }
  void setClassName(std::string value) { className_ = std::move(value); }
  void setMethodName(std::string value) { methodName_ = std::move(value); }
  void setTimeCost(double seconds) { timeCost_ = seconds; }
  void setCallDepth(std::uint64_t value) { callDepth_ = value; }
  // Puts a call behind those that are there.
  void addSubRecord(std::shared_ptr<QBVTimeProfilerRecord> record);

  // One line without its end, such as "120.00ms|   -[Bar save]": milliseconds, two blanks per depth, "+" for
  // a class method. The same in every locale.
  std::string descriptionWithDepth() const;

 private:
  bool isClassMethod_ = false;
  std::string className_;
  std::string methodName_;
  double timeCost_ = 0;
  std::uint64_t callDepth_ = 0;
  std::optional<QBVTimeProfilerRecords> subRecords_;
};
