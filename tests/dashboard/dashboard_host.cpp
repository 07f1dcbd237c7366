// A host application that shows the dashboard as it is told, one command a line on its standard input:
//   toggle               post the notification that shows or hides it
//   still                let the wave stand, at the place where it begins
//   memory MEGABYTES     what the memory monitor would tell it; a standing wave makes one step
//   cpu PERCENT          what the label says instead of the process's true CPU use
//   wait shown|hidden|moved   until the dashboard is that, moved: by the user
//   turn SECONDS         let the main loop turn
//   fork                 make a child that toggles, and wait for its end
//   exit
// It answers each with "done COMMAND".
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <string>

#include "tests/end_to_end/told_host.h"
#include "vitalscope/dashboard/QBVitalscopeDashboard.h"
#include "vitalscope/platform/platform.h"

namespace {

bool standing = false;

QBVitalscopeDashboard& dashboard() {
  return *QBVitalscopeDashboard::sharedInstance();
}

void turnOnce(int milliseconds) {
  qbv::platform().runLoop.runOnce(milliseconds);
}

void turn(double seconds) {
  using Clock = std::chrono::steady_clock;
  for (const auto end = Clock::now() + std::chrono::duration<double>(seconds); Clock::now() < end;)
    turnOnce(static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count()));
}

void post(const char* name) {
  qbv::platform().notifications.defaultCenter().post(name);
}

void tellMemory(double megabytes) {
  dashboard().qbvMemoryUsage(megabytes);
  turn(0.01);
  if (standing) dashboard().waveLayer()->setCurrentWaveLayerPath();
}

void toggleInChild() {
  const pid_t child = fork();
  if (child == 0) {
    post("performance_dashboard");
    _exit(0);
  }
  waitpid(child, nullptr, 0);
}

bool isSo(const std::string& what) {
  if (what != "moved") return dashboard().isShow() == (what == "shown");
  const double edge = qbv::platform().windows.mainScreenFrame().size.width;
  return dashboard().dashboardWindow()->frame().origin.x != edge - 100;
}

bool obey(const std::string& line) {
  std::istringstream words(line);
  std::string verb;
  std::string what;
  double number = 0;
  words >> verb;
  if (verb == "toggle") {
    post("performance_dashboard");
  } else if (verb == "still") {
    standing = true;
    dashboard().waveLayer()->stopWave();
  } else if (verb == "memory" && words >> number) {
    tellMemory(number);
  } else if (verb == "cpu" && words >> what) {
    turn(0.01);
    dashboard().cpuUsageLabel()->setString("CPU:" + what + "%");
  } else if (verb == "wait" && words >> what) {
    while (!isSo(what)) turnOnce(50);
  } else if (verb == "turn" && words >> number) {
    turn(number);
  } else if (verb == "fork") {
    toggleInChild();
  } else {
    return false;
  }
  return true;
}

}  // namespace

int main() {
  return e2e::obeyAll(obey);
}
