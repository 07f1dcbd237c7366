// The images of a running process, in the form in which a report lists them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/report_reader/report.h"

namespace qbv::cli {

// Nothing but images, the executable first. Nothing at all when the process has ended or may not be looked
// at, and when it does not have this file mapped: then its id belongs to another process by now.
std::optional<reader::Report> imagesOfRunning(std::uint32_t process, const std::string& mappedFile);

}  // namespace qbv::cli
