// The host's answers as run-time classes. A class or selector appears only once its answer was given, so that
// what a host does not say stays unsaid.
#include <memory>
#include <mutex>
#include <utility>

#include "host/quibvitalscope_host.hpp"
#include "vitalscope/platform/platform.h"

namespace qbv::host {

namespace {

// An answer that may be replaced while another thread asks it: who asks holds the one it found.
template <class Function>
class Answer {
 public:
  void set(Function function) {
    const auto fresh = std::make_shared<const Function>(std::move(function));
    const std::lock_guard lock(mutex_);
    function_ = fresh;
  }
  std::shared_ptr<const Function> get() {
    const std::lock_guard lock(mutex_);
    return function_;
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<const Function> function_;
};

struct Answers {
  Answer<std::function<std::optional<std::string>()>> email;
  Answer<std::function<bool()>> keepsLogs;
  Answer<std::function<std::int64_t()>> callStatus;
  Answer<UploadHelper> upload;
};

Answers& answers() {
  static Answers* const instance = new Answers;
  return *instance;
}

// Text handed to the monitor stays valid until the same thread asks again.
const char* lend(std::string text) {
  static thread_local std::string lent;
  lent = std::move(text);
  return lent.c_str();
}

const char* getEmail(id, SEL) {
  const auto email = (*answers().email.get())();
  return email ? lend(*email) : nullptr;
}
bool isLogVersion(id, SEL) {
  return (*answers().keepsLogs.get())();
}
std::int64_t getCallStatus(id, SEL) {
  return (*answers().callStatus.get())();
}

const char* uploadPerformanceDumpFile(id, SEL, bool userUpload) {
  return lend(answers().upload.get()->upload(userUpload));
}
void responseDumpFileUploaded(id, SEL, const char* json) {
  const auto helper = answers().upload.get();
  if (helper->feedback) helper->feedback(json);
}

// One instance per class, made when first asked for.
id userProfile(id, SEL) {
  static const id instance =
      ClassDefinition(platform().runtime, "QBVHostUserProfile").method("getEmail", getEmail).instance();
  return instance;
}
id appHelper(id, SEL) {
  static const id instance = ClassDefinition(platform().runtime, "QBVHostAppHelper")
                                 .method("getCallStatus", getCallStatus)
                                 .instance();
  return instance;
}
id uploadHelper(id, SEL) {
  static const id instance = ClassDefinition(platform().runtime, "QBVHostUploadHelper")
                                 .method("uploadPerformanceDumpFile:", uploadPerformanceDumpFile)
                                 .method("responseDumpFileUploaded:", responseDumpFileUploaded)
                                 .instance();
  return instance;
}

}  // namespace

ClassDefinition defineClass(const char* name, Class superclass) {
  return {platform().runtime, name, superclass};
}

void answerEmail(std::function<std::optional<std::string>()> answer) {
  answers().email.set(std::move(answer));
  ClassDefinition(platform().runtime, "QBKXAppInterfaceAdapter")
      .classMethod("sharedUserProfileInstance", userProfile);
}

void answerKeepsLogs(std::function<bool()> answer) {
  answers().keepsLogs.set(std::move(answer));
  ClassDefinition(platform().runtime, "NSBundle").classMethod("isLogVersion", isLogVersion);
}

void answerCallStatus(std::function<std::int64_t()> answer) {
  answers().callStatus.set(std::move(answer));
  ClassDefinition(platform().runtime, "QBKXAppInterfaceAdapter")
      .classMethod("sharedKXAppHelperInstance", appHelper);
}

void setUploadHelper(UploadHelper helper) {
  answers().upload.set(std::move(helper));
  ClassDefinition(platform().runtime, "QBCrashReportHelper").classMethod("sharedInstance", uploadHelper);
}

std::optional<std::string> uploadFolder() {
  Runtime& runtime = platform().runtime;
  const id report = Runtime::classObject(runtime.NSClassFromString("QBVitalscopeReport"));
  const char* const root =
      send<const char*>(runtime, send<id>(runtime, report, "sharedInstance"), "localLogFolderRootPath");
  const char* const suffix = send<const char*>(runtime, report, "currentFirstLevelDirPath");
  if (root == nullptr || suffix == nullptr) return std::nullopt;
  return std::string(root) + suffix;
}

void setBundleValue(const std::string& key, const std::string& value) {
  platform().hostInfo.setInfoDictionaryValue(key, value);
}

void post(const std::string& name, const Value& userInfo) {
  platform().notifications.defaultCenter().post(name, userInfo);
}

}  // namespace qbv::host
