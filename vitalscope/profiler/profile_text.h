// From recorded calls to a tree, to the page's text, to what other programs read. Pure functions of their
// inputs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vitalscope/platform/value.h"
#include "vitalscope/profiler/QBVTimeProfilerRecord.h"

namespace qbv {

// One finished call, as it was recorded.
struct RecordedCall {
  std::string className;
  std::string methodName;
  bool isClassMethod = false;
  std::uint64_t microseconds = 0;
  std::int32_t depth = 0;
};

// The calls of depth 0 in the order in which they ended, each with those made from it. `calls` stands in the
// order in which they ended, too. A call belongs to the first later one that is one level less deep; without
// any it is dropped, with all below it. Takes time in proportion to the number of calls.
QBVTimeProfilerRecords callTree(const std::vector<RecordedCall>& calls);

// The page's text: a line per call, the last 50 outermost ones only, and the sum of those 50.
std::string profileText(const QBVTimeProfilerRecords& tree);
// The record's line and those of all below it, depth first.
void appendLines(const QBVTimeProfilerRecord& record, std::string& to);
// The page. Its text ends where the page says so, whatever the names of classes and selectors hold.
std::string profilePage(const std::string& text);
// The tree as {"records": [{"class", "method", "classMethod", "milliseconds", "records"}…]}, latest call
// first below a call, "records" left out where there are none. Always valid JSON: of names that are not UTF-8
// the foreign bytes become "?", and calls more than 200 levels deep are left out, for readers that recurse.
Value profileValue(const QBVTimeProfilerRecords& tree);

// With a point, whatever the locale says.
std::string withTwoDecimals(double number);

}  // namespace qbv
