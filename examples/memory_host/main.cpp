// A host application that takes more than a gigabyte of memory while its user is in no meeting.
//   memory_host [--megabytes N] [--wait SECONDS] [--meeting] [--no-log] [--email ADDRESS]
// --wait: how long it works on before it grows (no memory is reported in the first 30 seconds). --meeting:
// its user is in a meeting, which keeps reports back. The last lines it prints name its report and its stack
// file.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "gallery.h"
#include "host/quibvitalscope_host.hpp"
#include "vitalscope/platform/platform.h"

namespace {

struct Options {
  std::size_t megabytes = 1100;
  double wait = 32;
  bool meeting = false;
  bool keepsLogs = true;
  std::string email = "someone@" QBV_MAIL_DOMAIN;
};

bool parseOptions(int count, char** arguments, Options& options) {
  for (int index = 1; index < count; ++index) {
    const std::string option = arguments[index];
    const bool hasValue = index + 1 < count;
    if (option == "--meeting")
      options.meeting = true;
    else if (option == "--no-log")
      options.keepsLogs = false;
    else if (option == "--email" && hasValue)
      options.email = arguments[++index];
    else if (option == "--wait" && hasValue)
      options.wait = std::atof(arguments[++index]);
    else if (option == "--megabytes" && hasValue)
      options.megabytes = std::strtoul(arguments[++index], nullptr, 10);
    else
      return false;
  }
  return true;
}

void say(const std::string& line) {
  std::printf("memory_host: %s\n", line.c_str());
  std::fflush(stdout);
}

void turnMainLoop(double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (Clock::now() < end) qbv::platform().runLoop.runOnce(50);
}

void answerTheMonitor(const Options& options) {
  constexpr std::int64_t kInMeeting = 2;
  qbv::host::answerEmail([email = options.email] { return email; });
  qbv::host::answerKeepsLogs([keepsLogs = options.keepsLogs] { return keepsLogs; });
  qbv::host::answerCallStatus([meeting = options.meeting] { return meeting ? kInMeeting : 0; });
  qbv::host::setBundleValue("CFBundleName", "MemoryHost");
  qbv::host::setBundleValue("CFBundleExecutable", "memory_host");
}

void tellWhatIsLeft() {
  qbv::Files& files = qbv::platform().files;
  const std::string folder = qbv::expandingTildeInPath(
      "~/Library/Logs/quibapp/Diagnostic/" + std::to_string(qbv::platform().hostInfo.processIdentifier()));
  const std::string reportFolder = folder + "/app_memory_oversize/";
  const std::vector<std::string> reports = files.contentsOfDirectory(reportFolder);
  const std::string aReport = "report: " + reportFolder;
  if (reports.empty()) say("no report");
  for (const std::string& report : reports) say(aReport + report);
  const std::string stacks = folder + "/dump/stack_backtrace.mmap";
  if (files.fileExists(stacks)) say("stacks: " + stacks);
}

}  // namespace

int main(int count, char** arguments) {
  Options options;
  if (!parseOptions(count, arguments, options)) {
    std::fprintf(
        stderr,
        "usage: memory_host [--megabytes N] [--wait SECONDS] [--meeting] [--no-log] [--email ADDRESS]\n");
    return 2;
  }
  answerTheMonitor(options);
  qbv::host::post("Noti_Login_FB_Login_Finished");
  say("is signed in; works on for " + std::to_string(static_cast<int>(options.wait)) + " seconds");
  turnMainLoop(options.wait);
  say("takes " + std::to_string(options.megabytes) + " MB" + (options.meeting ? " in a meeting" : ""));
  cacheThumbnails(options.megabytes - options.megabytes / 4);
  keepUndoHistory(options.megabytes / 4);
  turnMainLoop(4);
  tellWhatIsLeft();
  qbv::host::post("Noti_LogOut");
  turnMainLoop(0.5);
  return 0;
}
