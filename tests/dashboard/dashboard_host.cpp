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
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <sstream>
#include <string>

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

bool readCommand(std::string& line) {
  line.clear();
  qbv::RunLoop& loop = qbv::platform().runLoop;
  for (;;) {
    pollfd entries[] = {{STDIN_FILENO, POLLIN, 0}, {loop.descriptor(), POLLIN, 0}};
    if (poll(entries, 2, -1) < 0) continue;
    if (entries[1].revents != 0) loop.drain();
    if (entries[0].revents == 0) continue;
    char letter = 0;
    if (read(STDIN_FILENO, &letter, 1) != 1) return false;
    if (letter == '\n') return true;
    line += letter;
  }
}

}  // namespace

int main() {
  for (std::string line; readCommand(line);) {
    if (line == "exit") return 0;
    if (!obey(line)) return 3;
    std::printf("done %s\n", line.c_str());
    std::fflush(stdout);
  }
  return 0;
}
