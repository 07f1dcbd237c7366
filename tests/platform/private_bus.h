// A message bus of a test's own.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/platform/temporary_folder.h"

extern char** environ;

namespace qbv {

// A message bus for one test, with nobody on it.
class PrivateBus {
 public:
  // `variable` (of the environment) will name its address.
  explicit PrivateBus(const char* variable) {
    const std::string address = "unix:path=" + (folder_ / "bus");
    std::ofstream(folder_ / "bus.conf")
        << "<busconfig><type>system</type><listen>" << address << "</listen><auth>EXTERNAL</auth>"
        << "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
        << "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>";
    std::string program = "dbus-daemon";
    std::string option = "--config-file=" + (folder_ / "bus.conf");
    std::string stay = "--nofork";
    char* const words[] = {program.data(), option.data(), stay.data(), nullptr};
    EXPECT_EQ(posix_spawnp(&pid_, "dbus-daemon", nullptr, nullptr, words, environ), 0)
        << "the package dbus-daemon is needed";
    setenv(variable, address.c_str(), 1);
  }
  ~PrivateBus() { end(); }
  void end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }

 private:
  TemporaryFolder folder_;
  pid_t pid_ = 0;
};

}  // namespace qbv
