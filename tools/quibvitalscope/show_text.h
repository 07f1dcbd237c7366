// A report as a person reads it.
#pragma once

#include <string>

#include "tools/quibvitalscope/report_view.h"
#include "tools/quibvitalscope/terminal.h"

namespace qbv::cli {

std::string renderReport(const ReportView& view, const Style& style);

}  // namespace qbv::cli
