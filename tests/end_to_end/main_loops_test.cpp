// Programs that know nothing of any monitor, under the stand-in host: their toolkits' loops carry the guards,
// so a callback that blocks is reported, and neither a nested loop nor a modal dialog is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tests/end_to_end/host_process.h"
#include "tests/end_to_end/virtual_display.h"

namespace {

namespace fs = std::filesystem;
using e2e::HostProcess;
using e2e::TemporaryFolder;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr char kPython[] = "/usr/bin/python3";  // the system's, which has the bindings

// Signed in at the loop's first pass; the rest is for the warm-up of reports.
constexpr char kWarmUp[] = "turn 7";

class MainLoops : public testing::Test {
 protected:
  using Host = std::unique_ptr<HostProcess>;

  Host start(const std::string& executable, const std::vector<std::string>& arguments = {},
             const std::vector<std::string>& variables = {}) {
    std::vector<std::string> all{"LD_PRELOAD=" QBV_PRELOAD, "XDG_RUNTIME_DIR=" + home_.path().string(),
                                 "NO_AT_BRIDGE=1", "DISPLAY="};
    if (display_ != nullptr) all.back() += display_->name();
    all.insert(all.end(), variables.begin(), variables.end());
    return std::make_unique<HostProcess>(executable, arguments, home_.path(), all);
  }
  Host startPython(const std::string& kind) { return start(kPython, {QBV_PYTHON_HOST, kind}); }

  // With the run-loop monitor, and its standard error in a file.
  Host startWatched(const std::vector<std::string>& arguments, const std::string& log) {
    std::vector<std::string> words{"-c", "exec \"$0\" \"$@\" 2> " + (home_.path() / log).string(), kPython,
                                   QBV_PYTHON_HOST};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return start("/bin/sh", words, {"QUIBVITALSCOPE_WATCH_RUN_LOOP=1"});
  }
  std::string logOf(const std::string& name) const { return e2e::contentOf(home_.path() / name); }

  bool hasDisplay() {
    display_ = std::make_unique<e2e::VirtualDisplay>();
    return !display_->name().empty();
  }
  static bool pythonHas(const std::string& library) {
    const std::string command =
        std::string(kPython) + " -c \"import gi; gi.require_version('" + library + "')\" 2>/dev/null";
    return std::system(command.c_str()) == 0;
  }

  // The reports that show the main thread with these names, innermost first.
  static void expectReportsOf(const HostProcess& host, const std::vector<std::string>& names) {
    ASSERT_THAT(host.hangReports(), Not(IsEmpty()));
    for (const fs::path& report : host.hangReports()) {
      const std::vector<std::string> block = e2e::mainThreadBlock(e2e::contentOf(report));
      std::size_t line = 0;
      for (const std::string& name : names) {
        while (line < block.size() && block[line].find(name) == std::string::npos) ++line;
        EXPECT_LT(line, block.size()) << name << " in " << testing::PrintToString(block);
      }
    }
  }

  // The call samples beside the reports show on top that the main thread waited in this function.
  static void expectSamplesThatLead(const std::string& function, const HostProcess& host) {
    int count = 0;
    for (const auto& entry : fs::directory_iterator(host.diagnosticRoot() / "sample_log")) {
      const std::string sample = e2e::contentOf(entry.path());
      const std::string top = sample.substr(0, sample.find("Call graph:"));
      EXPECT_THAT(top, testing::ContainsRegex("Thread " + std::to_string(host.pid()) +
                                              "[^\n]*\n[^\n]*nanosleep[^\n]*called from "));
      EXPECT_THAT(sample, testing::HasSubstr(function));
      ++count;
    }
    EXPECT_GT(count, 0);
  }

 private:
  TemporaryFolder home_;
  std::unique_ptr<e2e::VirtualDisplay> display_;
};

TEST_F(MainLoops, BlockedCallbackOfGlibIsReported) {
  const Host linked = start(QBV_GLIB_HOST);
  const Host python = pythonHas("GLib', '2.0") ? startPython("glib") : nullptr;
  for (HostProcess* host : {linked.get(), python.get()})
    if (host != nullptr) host->tell({kWarmUp, "block 9", "turn 1"});
  ASSERT_TRUE(linked->finished());
  expectReportsOf(*linked, {"copyFromSlowShare", "importAttachments", "g_main_context_dispatch", "main "});
  EXPECT_THAT(linked->hangReports("freeze"), Not(IsEmpty()));
  expectSamplesThatLead("copyFromSlowShare", *linked);
  EXPECT_EQ(linked->exitStatus(), 0);
  if (python == nullptr) GTEST_SKIP() << "package python3-gi is missing";
  ASSERT_TRUE(python->finished());
  expectReportsOf(*python, {"clock_nanosleep", "g_main_context_dispatch", "g_main_loop_run"});
  EXPECT_THAT(python->hangReports("freeze"), Not(IsEmpty()));
  EXPECT_EQ(python->exitStatus(), 0);
}

// That something is reported afterwards shows that they were watched all the while. (When in the nine seconds
// depends on what the dialog cost: a CPU finding holds the next report back for five.)
TEST_F(MainLoops, GtkIsWatchedThroughNestedLoopsAndDialogs) {
  if (!hasDisplay()) GTEST_SKIP() << "package xvfb is missing";
  if (!pythonHas("Gtk', '3.0")) GTEST_SKIP() << "package gir1.2-gtk-3.0 is missing";
  const Host opensGtk = start(QBV_GLIB_HOST);
  const Host window = startPython("gtk");
  const Host application = startPython("application");
  for (const Host* host : {&opensGtk, &window, &application}) (*host)->tell({"turn 4", "dialog 4", "turn 2"});
  for (const Host* host : {&opensGtk, &window, &application}) {
    ASSERT_TRUE((*host)->finished());
    EXPECT_THAT((*host)->hangReports(), IsEmpty());
    (*host)->tell({"block 9", "turn 1"});
  }
  for (const Host* host : {&opensGtk, &window, &application}) {
    ASSERT_TRUE((*host)->finished());
    expectReportsOf(**host, {"clock_nanosleep", "g_main_context_dispatch", "main "});
    EXPECT_EQ((*host)->exitStatus(), 0);
  }
}

#ifdef QBV_QT_HOST
TEST_F(MainLoops, QtIsWatchedWhereItsDispatcherRunsOnGlib) {
  if (!hasDisplay()) GTEST_SKIP() << "package xvfb is missing";
  const Host usual = start(QBV_QT_HOST);
  const Host withoutGlib = start(QBV_QT_HOST, {}, {"QT_NO_GLIB=1"});
  for (const Host* host : {&usual, &withoutGlib}) (*host)->tell({"turn 4", "dialog 4", "turn 2"});
  for (const Host* host : {&usual, &withoutGlib}) {
    ASSERT_TRUE((*host)->finished());
    EXPECT_THAT((*host)->hangReports(), IsEmpty());
    (*host)->tell({"block 9", "turn 1"});
  }
  ASSERT_TRUE(usual->finished());
  ASSERT_TRUE(withoutGlib->finished());
  expectReportsOf(
      *usual, {"copyFromSlowShare", "importAttachments", "g_main_context_dispatch", "QEventLoop", "main "});
  // GLib is loaded there and never turned: nobody can tell, so nothing is said.
  EXPECT_THAT(withoutGlib->hangReports(), IsEmpty());
  EXPECT_FALSE(fs::exists(withoutGlib->diagnosticRoot()));
  EXPECT_EQ(usual->exitStatus(), 0);
  EXPECT_EQ(withoutGlib->exitStatus(), 0);
}
#endif

// An event's handler blocks: where GTK itself handles the events they go through the hook, also where GTK
// came after the monitor; a host that handles its own keeps doing so; and the loop is watched in all.
TEST_F(MainLoops, RunLoopMonitorSeesWhatBlocksAnEventOfGtk) {
  if (!hasDisplay()) GTEST_SKIP() << "package xvfb is missing";
  if (!pythonHas("Gtk', '3.0")) GTEST_SKIP() << "package gir1.2-gtk-3.0 is missing";
  const Host early = startWatched({"gtk"}, "early.log");
  const Host late = startWatched({"late"}, "late.log");
  const Host own = startWatched({"gtk", "own-handler"}, "own.log");
  const std::vector<HostProcess*> hosts{early.get(), late.get(), own.get()};
  const auto all = [&](const std::vector<std::string>& commands) {
    for (HostProcess* host : hosts) host->tell(commands);
    for (HostProcess* host : hosts) ASSERT_TRUE(host->finished());
  };
  const auto allLogs = [&] { return logOf("early.log") + logOf("late.log") + logOf("own.log"); };
  late->tell({"turn 1", "gtk"});
  all({"turn 3", "event 5", "turn 1"});
  for (const char* log : {"early.log", "late.log", "own.log"})
    EXPECT_THAT(logOf(log), AllOf(HasSubstr("QBKorvaneANRMonitor_RunLoop: \n"), HasSubstr("nanosleep"),
                                  HasSubstr("gtk_main_do_event")));
  for (const char* log : {"early.log", "late.log"}) EXPECT_THAT(logOf(log), HasSubstr("qbv_sendEvent"));
  EXPECT_THAT(logOf("own.log"), AllOf(HasSubstr("own handler"), Not(HasSubstr("qbv_sendEvent"))));

  all({"turn 2"});
  const std::string before = allLogs();
  all({"turn 4"});
  EXPECT_EQ(allLogs(), before) << "idle";
  for (HostProcess* host : hosts) EXPECT_EQ(host->exitStatus(), 0);
}

// What a program without any loop gets from all this: nothing.
TEST_F(MainLoops, ProgramWithoutALoopIsLeftAlone) {
  const Host shell = start("/bin/sh", {"-c", "read line; echo done $line; read line"});
  shell->tell({"once"});
  ASSERT_TRUE(shell->finished());
  EXPECT_THAT(shell->threadNames(), SizeIs(1));
  EXPECT_FALSE(fs::exists(shell->diagnosticRoot()));
  EXPECT_EQ(shell->exitStatus(), 0);
}

}  // namespace
