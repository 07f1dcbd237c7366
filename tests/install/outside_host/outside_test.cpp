// A host's own test on the scripted platform: the answer follows what the test scripts.
#include <cstdio>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

int main() {
  qbv::ScriptedPlatform scripted;
  qbv::ClassDefinition(qbv::platform().runtime, "NSBundle")
      .classMethod(
          "isLogVersion", +[](qbv::id, qbv::SEL) { return true; });
  std::printf("keeps logs %d\n", QBVTool::isLogVersion());
  return 0;
}
