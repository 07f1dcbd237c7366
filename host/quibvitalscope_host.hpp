// The same as quibvitalscope_host.h for C++: answers are functions, user info is a value.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/value.h"

namespace qbv::host {

// Contexts and lifetimes as in the C header. A function that throws ends the process.
QBV_EXPORT void answerEmail(std::function<std::optional<std::string>()> answer);
QBV_EXPORT void answerKeepsLogs(std::function<bool()> answer);
QBV_EXPORT void answerCallStatus(std::function<std::int64_t()> answer);
struct UploadHelper {
  std::function<std::string(bool userUpload)> upload;     // request id, "" for none
  std::function<void(const std::string& json)> feedback;  // may be empty
};
QBV_EXPORT void setUploadHelper(UploadHelper helper);
// The absolute path of the folder to upload, while `upload` runs; nothing when no monitor is loaded.
QBV_EXPORT std::optional<std::string> uploadFolder();
QBV_EXPORT void setBundleValue(const std::string& key, const std::string& value);
QBV_EXPORT void post(const std::string& name, const Value& userInfo = {});
// False when libquibvitalscope is not loaded.
QBV_EXPORT bool watchRunLoop();
QBV_EXPORT void loopWillWait();
QBV_EXPORT void loopDidWake();
QBV_EXPORT void sendEvent(const std::function<void()>& handle);
QBV_EXPORT void postEvent(std::function<void()> handle);

}  // namespace qbv::host
