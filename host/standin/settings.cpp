#include "host/standin/settings.h"

#include <string_view>

#include "host/control/protocol.h"

namespace qbv::standin {

Settings settingsFrom(const std::function<const char*(const char* name)>& variable,
                      const std::string& executable, const std::string& mailDomain) {
  const auto valueOr = [&](const char* name, const std::string& otherwise) {
    const char* const value = variable(name);
    return value != nullptr ? std::string(value) : otherwise;
  };
  Settings settings;
  settings.email = valueOr(control::kEmailVariable, "someone@" + mailDomain);
  settings.keepsLogs = valueOr(control::kKeepsLogsVariable, "1") != "0";
  settings.bundleId = valueOr(control::kBundleIdVariable, executable);
  settings.version = valueOr(control::kVersionVariable, "0");
  settings.watchRunLoop = valueOr(control::kWatchRunLoopVariable, "0") == "1";
  settings.uploads.command = valueOr(control::kUploadCommandVariable, "");
  if (settings.uploads.command.empty()) settings.uploads.folder = valueOr(control::kUploadToVariable, "");
  return settings;
}

}  // namespace qbv::standin
