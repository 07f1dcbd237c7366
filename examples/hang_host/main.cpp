// A small host application: it answers the monitor's questions, signs its user in, and then hangs twice.
//   hang_host [--log | --no-log] [--email ADDRESS]
// Its reports lie below ~/Library/Logs/quibapp/Diagnostic; the last line it prints names the folder.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "document.h"
#include "host_classes.h"
#include "vitalscope/platform/platform.h"

namespace {

void say(const std::string& line) {
  std::printf("hang_host: %s\n", line.c_str());
  std::fflush(stdout);
}

bool parseOptions(int count, char** arguments, HostOptions& options) {
  for (int index = 1; index < count; ++index) {
    const std::string option = arguments[index];
    if (option == "--log")
      options.keepsLogs = true;
    else if (option == "--no-log")
      options.keepsLogs = false;
    else if (option == "--email" && index + 1 < count)
      options.email = arguments[++index];
    else
      return false;
  }
  return true;
}

void turnMainLoop(double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (Clock::now() < end) qbv::platform().runLoop.runOnce(50);
}

void blockMainThread(int seconds) {
  say("blocks its main thread for " + std::to_string(seconds) + " seconds: openDocument");
  openDocument(seconds);
  say("answers again");
}

std::string diagnosticFolder() {
  return qbv::expandingTildeInPath("~/Library/Logs/quibapp/Diagnostic/" +
                                   std::to_string(qbv::platform().hostInfo.processIdentifier()));
}

}  // namespace

int main(int count, char** arguments) {
  HostOptions options;
  if (!parseOptions(count, arguments, options)) {
    std::fprintf(stderr, "usage: hang_host [--log | --no-log] [--email ADDRESS]\n");
    return 2;
  }
  defineHostClasses(options);
  qbv::NotificationCentre& centre = qbv::platform().notifications.defaultCenter();

  say("signs in " + options.email + ", " + (options.keepsLogs ? "keeps" : "does not keep") + " logs");
  centre.post("Noti_Login_FB_Login_Finished");
  turnMainLoop(1);
  centre.post(qbv::NSApplicationDidBecomeActiveNotification);
  say("is in front; no hang is reported in the first seconds, so it works on for 6");
  turnMainLoop(6);
  blockMainThread(2);
  turnMainLoop(4);
  blockMainThread(8);
  say("works on for 3 seconds, then signs out");
  turnMainLoop(3);
  centre.post("Noti_LogOut");
  turnMainLoop(0.5);
  say("its reports: " + diagnosticFolder());
  return 0;
}
