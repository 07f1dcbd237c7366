// The same as quibvitalscope_host.h for C++: answers are functions, user info is a value.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/message.h"
#include "vitalscope/platform/runtime.h"
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

// Classes of the host's own, below `superclass` ("NSObject" when that is null); the present one when the name
// is taken. Their methods are functions R (*)(id self, SEL selector, arguments…) of any types:
//
//   using namespace qbv::literals;
//   auto shape = qbv::host::defineClass("Shape").method("areaInUnit:", +[](id, SEL, double unit) { … });
//   const double area = qbv::send<double>(shape.instance(), "areaInUnit:"_sel, 2.0);
//
// Sends go through the host's own import of objc_msgSend, so the method-time profiler sees them.
QBV_EXPORT ClassDefinition defineClass(const char* name, Class superclass = nullptr);

}  // namespace qbv::host
