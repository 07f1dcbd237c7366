// A report as programs read it; the manual page describes the keys.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/quibvitalscope/report_view.h"

namespace qbv::cli {

nlohmann::ordered_json reportJson(const ReportView& view);

// Two columns a level, bytes that are no UTF-8 replaced, ends with a line feed.
std::string jsonText(const nlohmann::ordered_json& json);

}  // namespace qbv::cli
