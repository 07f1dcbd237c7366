// What the launcher told the stand-in host through the environment.
#pragma once

#include <functional>
#include <string>

#include "host/standin/uploads.h"

namespace qbv::standin {

struct Settings {
  std::string email;
  bool keepsLogs = true;
  std::string bundleId;
  std::string version;
  bool watchRunLoop = false;
  UploadConsent uploads;
};

// `variable` answers null for a variable that is not set.
Settings settingsFrom(const std::function<const char*(const char* name)>& variable,
                      const std::string& executable, const std::string& mailDomain);

}  // namespace qbv::standin
