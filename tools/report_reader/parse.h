// From the text of a report file to reports. Pure functions of the text; nothing in it is trusted.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/report_reader/report.h"

namespace qbv::reader {

// What a file's text is, told by its first lines.
enum class TextKind { report, sample, other };
TextKind textKind(std::string_view text);

// A file to which was written more than once holds several reports, one behind the other.
std::vector<std::string_view> splitReports(std::string_view text);

// Nothing when the text does not begin like a report. A text that is cut off or damaged gives what can be
// read, with the rest told in `problems`.
std::optional<Report> parseReport(std::string_view text);

// The process in the first line of a report or sample; "" when it names none.
std::string processName(std::string_view text);

// Single lines, for those who need no more; nothing when the line is none of its kind.
std::optional<Frame> parseFrame(std::string_view line);
std::optional<Image> parseImage(std::string_view line);

}  // namespace qbv::reader
