// Facts about the process and the machine that a report's header prints.
#pragma once

#include <optional>
#include <string>

namespace qbv {

// A missing one prints as "(null)".
struct SystemFacts {
  std::optional<std::string> systemName;          // "macOS", "Linux"
  std::optional<std::string> systemVersion;       // "14.2", "14.2.1"
  std::optional<std::string> bundleID;            // of the host application
  std::optional<std::string> bundleVersion;       // build
  std::optional<std::string> bundleShortVersion;  // marketing version
  std::optional<std::string> deviceName;          // name of the machine
  std::optional<std::string> cpuArchitecture;     // "x86_64"
  std::optional<std::string> processName;
  std::optional<std::string> processID;
  std::optional<std::string> parentProcessID;
  std::optional<std::string> executableName;  // kept, not printed, like the next two
  std::optional<std::string> bundleName;
  std::optional<std::string> timezone;  // abbreviation, "CET"
};

}  // namespace qbv
