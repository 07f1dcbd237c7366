#include "host_classes.h"

#include "vitalscope/platform/platform.h"

namespace {

// Never destroyed: the monitor may ask while the process ends.
HostOptions& answers = *new HostOptions;
qbv::id profile = nullptr;

}  // namespace

void defineHostClasses(const HostOptions& options) {
  using qbv::ClassDefinition, qbv::id, qbv::SEL;
  qbv::Runtime& runtime = qbv::platform().runtime;
  answers = options;

  profile = ClassDefinition(runtime, "HangHostProfile")
                .method(
                    "getEmail", +[](id, SEL) -> const char* { return answers.email.c_str(); })
                .instance();
  ClassDefinition(runtime, "QBKXAppInterfaceAdapter")
      .classMethod(
          "sharedUserProfileInstance", +[](id, SEL) -> id { return profile; });
  ClassDefinition(runtime, "NSBundle")
      .classMethod(
          "isLogVersion", +[](id, SEL) -> bool { return answers.keepsLogs; });

  qbv::HostInfo& info = qbv::platform().hostInfo;
  info.setInfoDictionaryValue("CFBundleIdentifier", "example.quibapp.hanghost");
  info.setInfoDictionaryValue("CFBundleName", "HangHost");
  info.setInfoDictionaryValue("CFBundleExecutable", "hang_host");
  info.setInfoDictionaryValue("CFBundleVersion", "1.0.0.1");
  info.setInfoDictionaryValue("CFBundleShortVersionString", "1.0.0");
}
