// The host's classes on the scripted platform, with answers of the test's choice.
#pragma once

#include <string>

#include "vitalscope/platform/scripted/scripted_platform.h"

// One per process. Each define… makes the class answer; until then the host does not have it.
class ScriptedHost {
 public:
  explicit ScriptedHost(qbv::Runtime& runtime) : runtime_(runtime) {}

  void defineLogVersion(int answer) {
    logVersion = answer;
    qbv::ClassDefinition(runtime_, "NSBundle")
        .classMethod(
            "isLogVersion", +[](qbv::id, qbv::SEL) -> int {
              ++logVersionQuestions;
              return logVersion;
            });
  }
  // Null: the profile has no e-mail.
  void defineUser(const char* address) {
    email = address;
    profile = qbv::ClassDefinition(runtime_, "ScriptedProfile")
                  .method(
                      "getEmail",
                      +[](qbv::id, qbv::SEL) -> const char* {
                        ++emailQuestions;
                        return email;
                      })
                  .instance();
    qbv::ClassDefinition(runtime_, "QBKXAppInterfaceAdapter")
        .classMethod(
            "sharedUserProfileInstance", +[](qbv::id, qbv::SEL) -> qbv::id { return profile; });
  }

  inline static int logVersion = 0;
  inline static int logVersionQuestions = 0;
  inline static int emailQuestions = 0;
  inline static const char* email = nullptr;
  inline static qbv::id profile = nullptr;

 private:
  qbv::Runtime& runtime_;
};
