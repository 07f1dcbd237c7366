// The stacks of real programs of toolkits, built without frame pointers by their distribution, frame by frame
// beside the debugger's: idle in their loops, in modal dialogs and blocked in callbacks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/end_to_end/host_process.h"
#include "tests/end_to_end/virtual_display.h"
#include "tests/platform/debugger_witness.h"

namespace {

using e2e::HostProcess;
using qbv::test::Addresses;
using Stacks = std::map<int, Addresses>;

constexpr char kPython[] = "/usr/bin/python3";  // the system's, which has the bindings

// A pipe whose ends a child inherits.
class Pipe {
 public:
  Pipe() {
    if (pipe(ends_) != 0) std::abort();
  }
  ~Pipe() {
    close(ends_[0]);
    close(ends_[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  int out() const { return ends_[0]; }
  int in() const { return ends_[1]; }

 private:
  int ends_[2];
};

// A program with the teller in it.
class ToldHost {
 public:
  ToldHost(const std::string& executable, const std::vector<std::string>& arguments,
           std::vector<std::string> variables, bool display) {
    if (display) display_.emplace();
    variables.insert(variables.end(), {"LD_PRELOAD=" QBV_TELLER, "NO_AT_BRIDGE=1", "DISPLAY=" + displayName(),
                                       "QBV_STACK_TELLER=" + std::to_string(questions_.out()) + " " +
                                           std::to_string(answers_.in())});
    host_ = std::make_unique<HostProcess>(executable, arguments, home_.path(), variables);
    teller_ = std::atoi(e2e::lineFrom(answers_.out()).c_str());
  }
  std::string displayName() const { return display_ ? display_->name() : ""; }
  HostProcess& host() { return *host_; }
  int teller() const { return teller_; }

  // Every thread but the teller's.
  Stacks stacks() const {
    Stacks stacks;
    if (write(questions_.in(), "?", 1) != 1) return {};
    for (std::string line = e2e::lineFrom(answers_.out()); !line.empty();
         line = e2e::lineFrom(answers_.out())) {
      std::istringstream text(line);
      int thread = 0;
      text >> thread;
      stacks[thread] = qbv::test::readAddresses(text);
    }
    return stacks;
  }

  // Until the main thread waits in this system call, or goes on with it after the debugger let go.
  bool waitsIn(long call) const {
    const std::string file = "/proc/" + std::to_string(host_->pid()) + "/syscall";
    return e2e::eventually([&] {
      const std::string line = e2e::contentOf(file);
      return line.starts_with(std::to_string(call) + " ") ||
             line.starts_with(std::to_string(SYS_restart_syscall) + " ");
    });
  }

 private:
  e2e::TemporaryFolder home_;
  std::optional<e2e::VirtualDisplay> display_;
  Pipe questions_, answers_;
  std::unique_ptr<HostProcess> host_;
  int teller_ = 0;
};

// A wait that the debugger has stopped and let go stands 2 bytes before, when it is about to begin again.
Stacks withoutInnermost(Stacks stacks) {
  for (auto& [thread, stack] : stacks) {
    if (!stack.empty()) stack[0] = 0;
  }
  return stacks;
}

void expectTheDebuggersStacks(ToldHost& told, long call, std::size_t least) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    ASSERT_TRUE(told.waitsIn(call));
    const Stacks ours = told.stacks();
    Stacks theirs = qbv::test::debuggerFrames(told.host().pid());
    ASSERT_EQ(theirs.erase(told.teller()), 1U);
    // Threads of toolkits come and go, and an idle one may just have had something to do.
    if (withoutInnermost(told.stacks()) != withoutInnermost(ours)) continue;
    ASSERT_EQ(ours.count(told.host().pid()), 1U);
    EXPECT_GE(ours.at(told.host().pid()).size(), least);
    testing::Test::RecordProperty("frames", static_cast<int>(ours.at(told.host().pid()).size()));
    testing::Test::RecordProperty("threads", static_cast<int>(ours.size()));
    ASSERT_EQ(ours.size(), theirs.size());
    for (const auto& [thread, stack] : ours) {
      SCOPED_TRACE(thread == told.host().pid() ? "main thread" : "another thread");
      ASSERT_FALSE(stack.empty());
      EXPECT_LE(stack[0] - theirs[thread][0], 2U);
      Addresses expected = theirs[thread];
      expected[0] = stack[0];
      EXPECT_EQ(qbv::test::inHex(stack), qbv::test::inHex(expected));
    }
    return;
  }
  FAIL() << "it never stood still";
}

struct Scene {
  const char* name;
  std::string executable;
  std::vector<std::string> arguments, variables, commands;
  long call;          // that the main thread waits in
  std::size_t least;  // how deep it is there, roughly
  bool display = true;

  friend void PrintTo(const Scene& scene, std::ostream* stream) { *stream << scene.name; }
};

std::vector<Scene> scenes() {
  std::vector<Scene> all{
      {"python_sleep",
       kPython,
       {"-c", "import time\ntime.sleep(100000)"},
       {},
       {},
       SYS_clock_nanosleep,
       8,
       false},
      {"glib_blocked", QBV_GLIB_HOST, {}, {}, {"block 100000"}, SYS_clock_nanosleep, 9, false},
      {"gtk_dialog_idle", QBV_GLIB_HOST, {}, {}, {"dialog 100000"}, SYS_poll, 9},
      {"gtk_python_idle", kPython, {QBV_PYTHON_HOST, "gtk"}, {}, {}, SYS_poll, 15},
      {"gtk_python_blocked",
       kPython,
       {QBV_PYTHON_HOST, "gtk"},
       {},
       {"block 100000"},
       SYS_clock_nanosleep,
       20},
      {"gtk_application_blocked",
       kPython,
       {QBV_PYTHON_HOST, "application"},
       {},
       {"block 100000"},
       SYS_clock_nanosleep,
       20},
  };
#ifdef QBV_QT_HOST
  for (const Scene& scene : std::vector<Scene>{
           {"qt_idle", QBV_QT_HOST, {}, {}, {}, SYS_poll, 8},
           {"qt_blocked", QBV_QT_HOST, {}, {}, {"block 100000"}, SYS_clock_nanosleep, 12},
           {"qt_dialog_idle", QBV_QT_HOST, {}, {}, {"dialog 100000"}, SYS_poll, 12},
           {"qt_without_glib", QBV_QT_HOST, {}, {"QT_NO_GLIB=1"}, {"block 100000"}, SYS_clock_nanosleep, 10},
           {"qt_offscreen",
            QBV_QT_HOST,
            {},
            {"QT_QPA_PLATFORM=offscreen"},
            {"block 100000"},
            SYS_clock_nanosleep,
            10,
            false}}) {
    all.push_back(scene);
  }
#endif
  return all;
}

class ToolkitStacks : public testing::TestWithParam<Scene> {};

TEST_P(ToolkitStacks, AreTheDebuggers) {
  const Scene& scene = GetParam();
  if (!qbv::test::debuggerIsInstalled()) GTEST_SKIP() << "gdb is not installed";
  if (scene.executable == kPython && scene.display &&
      std::system("/usr/bin/python3 -c \"import gi; gi.require_version('Gtk', '3.0')\" 2> /dev/null") != 0) {
    GTEST_SKIP() << "package gir1.2-gtk-3.0 is missing";
  }
  ToldHost told(scene.executable, scene.arguments, scene.variables, scene.display);
  if (scene.display && told.displayName().empty()) GTEST_SKIP() << "package xvfb is missing";
  if (!scene.commands.empty()) {
    // What comes with the program's start is over by then.
    told.host().tell({"turn 0.5"});
    ASSERT_TRUE(told.host().finished());
    told.host().tell(scene.commands);
  }
  expectTheDebuggersStacks(told, scene.call, scene.least);
}

INSTANTIATE_TEST_SUITE_P(All, ToolkitStacks, testing::ValuesIn(scenes()),
                         [](const auto& scene) { return std::string(scene.param.name); });

}  // namespace
