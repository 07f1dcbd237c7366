// Signs in as an internal user on the real platform and asks the gates; prints what they answer.
#include <cstdio>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"

int main() {
  qbv::Runtime& runtime = qbv::platform().runtime;
  qbv::ClassDefinition profile(runtime, "OutsideProfile");
  profile.method(
      "getEmail", +[](qbv::id, qbv::SEL) -> const char* { return "someone@" QBV_MAIL_DOMAIN; });
  static qbv::id person = profile.instance();
  qbv::ClassDefinition(runtime, "QBKXAppInterfaceAdapter")
      .classMethod(
          "sharedUserProfileInstance", +[](qbv::id, qbv::SEL) { return person; });
  std::printf("internal %d, keeps logs %d\n", QBVTool::isInternalAccount(), QBVTool::isLogVersion());
  return 0;
}
