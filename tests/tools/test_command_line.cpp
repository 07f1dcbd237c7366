// The command line as its users meet it: whole runs, their output and exit codes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tests/tools/command_line.h"

namespace {

namespace fs = std::filesystem;
using e2e::contentOf;
using e2e::HostProcess;
using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

#ifdef QBV_SANITIZED
constexpr bool kPreload = false;  // a sanitized library cannot be loaded first
#else
constexpr bool kPreload = true;
#endif

const fs::path kGolden = GOLDEN_FOLDER;

std::string golden() {
  return contentOf(kGolden / "hang.hang");
}

TEST_F(CommandLine, ExplainsItself) {
  for (const char* const name : {"run", "post", "reports", "show", "stacks", "doctor"}) {
    const Outcome help = command({name, "--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_THAT(help.out, HasSubstr(std::string("Usage: quibvitalscope ") + name));
    EXPECT_THAT(help.out, HasSubstr("Exit codes:"));
    EXPECT_THAT(command({"--help"}).out, HasSubstr(std::string("\n  ") + name + " "));
  }
  expectRefused({}, 2, "a command is missing");
  expectRefused({"sing"}, 2, "sing");
  expectRefused({"reports", "--pid", "0"}, 2, "'0' is no process id");
  expectRefused({"show", "--color", "pink"}, 2, "'pink' is none of auto, always, never");
}

TEST_F(CommandLine, ShowsAReportAsText) {
  const Outcome plain = command({"show", (kGolden / "hang.hang").string()});
  EXPECT_EQ(plain.code, 0) << plain.errors;
  EXPECT_EQ(plain.out, contentOf(kGolden / "hang.txt"));
  const Outcome coloured = command({"show", "--color", "always", (kGolden / "hang.hang").string()});
  EXPECT_THAT(coloured.out, HasSubstr("\033[1;31m▶   3  paint::Canvas::open"));
  EXPECT_THAT(coloured.out, HasSubstr("\033[2m  4  gtk_main"));
}

TEST_F(CommandLine, ShowsAReportAsJson) {
  const Outcome outcome = command({"show", "--json", (kGolden / "hang.hang").string()});
  const json report = json::parse(outcome.out)["reports"][0];
  EXPECT_EQ(report["pid"], 4242);
  EXPECT_EQ(report["level"], 4);
  EXPECT_EQ(report["mainThread"]["blocking"]["function"], "paint::Canvas::open(std::string const&)");
  EXPECT_EQ(report["mainThread"]["blocking"]["waitingIn"], "__nanosleep");
  EXPECT_EQ(report["mainThread"]["frames"][3]["imageOffset"], "0x1234");
  EXPECT_EQ(report["mainThread"]["frames"][2]["owner"], "library");
  EXPECT_EQ(report["otherThreads"][0]["threads"], json({4251, 4252}));
  EXPECT_EQ(report["images"][0]["file"], "missing");
  EXPECT_EQ(report["extraData"]["anrLevel"], 4);
  EXPECT_THAT(report["problems"], IsEmpty());
}

TEST_F(CommandLine, ShowsWhatIsLeftOfADamagedReportAndSaysSo) {
  const fs::path cut =
      place("7/freeze/light/quibapp_stuck_2026-11-16_16_44_12.hang", golden().substr(0, 1500));
  const Outcome outcome = command({"show", cut.string()});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.out, HasSubstr("Main thread"));
  EXPECT_THAT(outcome.errors, HasSubstr(cut.string() + ": cut off before the list of images"));

  std::string hostile = golden();
  hostile.replace(hostile.find("paint shop"), 10, "\033]0;x\a\xc2\x9b");
  const Outcome quiet = command({"show", place("7/power/x.hang", hostile).string()});
  EXPECT_THAT(quiet.out, Not(HasSubstr("\033")));
  EXPECT_THAT(quiet.out, HasSubstr("?]0;x??"));
}

TEST_F(CommandLine, RefusesToShowOtherFiles) {
  expectRefused({"show"}, 1, "there are no reports below");
  expectRefused({"show", script("notes", "notes\n").string()}, 1, "notes is no report");
  expectRefused({"show", script("empty", "").string()}, 1, "it is empty");
  expectRefused({"show", home_.path().string()}, 1, "is no regular file");
  expectRefused({"show", "/nowhere"}, 1, "cannot open /nowhere: No such file or directory");
}

TEST_F(CommandLine, ListsReportsNewestFirst) {
  place("5/freeze/light/quibapp_stuck_2026-11-16_16_44_12.hang", golden());
  place("6/app_memory_oversize/quibapp_overmemory_2026-11-17_08_00_00.hang", golden());
  place("6/sample_log/quibapp_stuck_2026-11-15_00_00_00_sample.hang",
        "Process:         paint shop [6]\nPath:            /p\n");
  const Outcome outcome = command({"reports", "--json"});
  EXPECT_EQ(outcome.code, 0) << outcome.errors;
  const json files = json::parse(outcome.out)["files"];
  ASSERT_THAT(files, SizeIs(3));
  EXPECT_EQ(files[0]["kind"], "memory");
  EXPECT_EQ(files[1]["level"], "light");
  EXPECT_EQ(files[1]["time"], "2026-11-16 16:44:12");
  EXPECT_EQ(files[1]["mainThread"], "paint::Canvas::open … in __nanosleep");
  EXPECT_EQ(files[2]["kind"], "sample");
  EXPECT_EQ(files[2]["process"], "paint shop");

  EXPECT_THAT(json::parse(command({"reports", "--json", "--pid", "6"}).out)["files"], SizeIs(2));
  const Outcome table = command({"reports"});
  EXPECT_THAT(table.out, HasSubstr("2026-11-16 16:44:12  hang        light     paint shop [5]"));
  const std::string shown = command({"show", "5/freeze/light/quibapp_stuck_2026-11-16_16_44_12.hang"}).out;
  EXPECT_EQ(shown, contentOf(kGolden / "hang.txt")) << "the path as it is listed";
}

TEST_F(CommandLine, ListsWhatItCanAndTellsWhatItCannotRead) {
  place("5/freeze/light/quibapp_stuck_2026-11-16_16_44_12.hang", golden());
  place("5/freeze/light/quibapp_stuck_2026-11-16_16_44_13.hang", "");
  const Outcome outcome = command({"reports"});
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.out, HasSubstr("paint::Canvas::open"));
  EXPECT_THAT(outcome.errors, HasSubstr("16_44_13.hang is no report: it is empty"));
}

TEST_F(CommandLine, IsSilentWithoutReports) {
  const Outcome outcome = command({"reports"});
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.out + outcome.errors, "");
}

TEST_F(CommandLine, TellsWhyAProgramIsNotRun) {
  expectRefused({"run"}, 2, "needs a command");
  expectRefused({"run", "--emial", "x", "--", "/bin/true"}, 2, "run has no option --emial");
  expectRefused({"run", "--", "no such program"}, 127, "there is no program 'no such program' on the PATH");
  expectRefused({"run", "--", "/no/such"}, 127, "No such file or directory");
  expectRefused({"run", "--", "/"}, 126, "it is a folder");
  expectRefused({"run", "--", script("closed", "#!/bin/sh\n", 0644).string()}, 126, "it is not executable");
  expectRefused({"run", "--", script("text", "hello\n").string()}, 126, "it is no program");
  expectRefused({"run", "--", script("orphan", "#!/no/interpreter -x\n").string()}, 126,
                "/no/interpreter is missing");
}

TEST_F(CommandLine, TellsWhyAProgramCannotBeMonitored) {
  expectRefused({"run", "--", STATIC_PROGRAM}, 125, "statically linked");
  const fs::path foreign = home_.path() / "foreign";
  fs::copy_file(HOST, foreign);
  std::fstream bytes(foreign, std::ios::in | std::ios::out | std::ios::binary);
  bytes.seekp(18).put('\xf3').put('\0').flush();  // the machine in the header
  expectRefused({"run", "--", foreign.string()}, 125, "another processor architecture");
  bytes.seekp(4).put('\1').flush();
  expectRefused({"run", "--", foreign.string()}, 125, "32-bit");
  expectRefused({"run", "--", script("viaScript", "#!" + foreign.string() + "\n").string()}, 125, "32-bit");
  if (geteuid() != 0) return;
  const fs::path privileged = home_.path() / "privileged";
  fs::copy_file(HOST, privileged);
  ASSERT_EQ(chown(privileged.c_str(), 65534, 0), 0);
  ASSERT_EQ(chmod(privileged.c_str(), 04755), 0);
  expectRefused({"run", "--", privileged.string()}, 125, "set-user-ID");
}

TEST_F(CommandLine, BecomesTheProgram) {
  if (!kPreload) GTEST_SKIP() << "the library cannot be preloaded in this build";
  const std::string print =
      "echo $QUIBVITALSCOPE_TARGET=$$ $QUIBVITALSCOPE_LOG $QUIBVITALSCOPE_WATCH_RUN_LOOP "
      "$QUIBVITALSCOPE_VERSION \"$@\"; exit 7";
  const Outcome outcome = command({"run", "--no-log", "--watch-run-loop", "--version", "4 2", "sh", "-c",
                                   print, "sh", "--", "-x", "a b"});
  EXPECT_EQ(outcome.code, 7);
  EXPECT_THAT(outcome.out, testing::MatchesRegex("([0-9]+)=[0-9]+ 0 1 4 2 -- -x a b\n"));
  const auto equals = outcome.out.find('=');
  EXPECT_EQ(outcome.out.substr(0, equals), outcome.out.substr(equals + 1, equals)) << "another process id";

  setenv("LD_PRELOAD", HARMLESS_LIBRARY, 1);
  const Outcome kept = command({"run", "--", "sh", "-c", "echo $LD_PRELOAD"});
  unsetenv("LD_PRELOAD");
  EXPECT_THAT(kept.out, HasSubstr(std::string(":") + HARMLESS_LIBRARY));
}

TEST_F(CommandLine, TellsWhyNothingWasPosted) {
  expectRefused({"post", "1"}, 2, "NAME is required");
  expectRefused({"post", "one", "name"}, 2, "'one' is no process id");
  expectRefused({"post", std::to_string(getpid()), "name", "novalue"}, 2,
                "'novalue' is not of the form key=value");
  expectRefused({"post", std::to_string(getpid()), "name", "a=1", "a=2"}, 2, "'a' is given twice");
  expectRefused({"post", std::to_string(getpid()), "name"}, 1, "has no control socket");
  expectRefused({"post", "2147483647", "name"}, 1, "there is no process 2147483647");
}

TEST_F(CommandLine, TellsWhyNothingWasDoneForTheUser) {
  for (const char* const action : {"upload", "open", "leak-check"}) {
    expectRefused({action}, 2, "PID is required");
    expectRefused({action, "2147483647"}, 1, "there is no process 2147483647");
  }
  expectRefused({"run", "--upload-to", "a", "--upload-command", "b", "--", "true"}, 2, "--upload-to");
}

TEST_F(CommandLine, WatchesLineByLineWithoutATerminal) {
  const std::string self = std::to_string(getpid());
  place(self + "/freeze/light/quibapp_stuck_2026-11-16_16_44_12.hang", golden());
  const Outcome outcome = command({"watch", "--once", "--interval", "0.1", self});
  EXPECT_EQ(outcome.code, 0) << outcome.errors;
  EXPECT_THAT(outcome.out, testing::ContainsRegex("^[-0-9]+ [:0-9]+  memory [.0-9]+ MB  cpu [0-9]+ %"));
  EXPECT_THAT(outcome.out, HasSubstr("reports 1  last 2026-11-16 16:44:12 hang light, paint::Canvas::open"));
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 1);
  expectRefused({"watch", "2147483647"}, 1, "there is no process 2147483647");
}

TEST_F(CommandLine, KnowsWhatTheMachineAllows) {
  const Outcome outcome = command({"doctor", "--json"});
  const json answer = json::parse(outcome.out);
  EXPECT_EQ(outcome.code, answer["usable"] == true ? 0 : 1);
  for (const json& check : answer["checks"]) {
    EXPECT_EQ(check["state"] == "works", check["fallback"].is_null()) << check;
    EXPECT_NE(check["finding"], "") << check;
    if (check["name"] == "display") {
      EXPECT_EQ(check["state"], "missing") << "DISPLAY is not set";
    }
    if (check["name"] == "library") {
      EXPECT_EQ(check["state"], "works");
    }
  }
  const Outcome unwatched = command({"doctor", "--pid", std::to_string(getpid())});
  EXPECT_EQ(unwatched.code, 1);
  EXPECT_THAT(unwatched.out, HasSubstr("missing  monitor"));
  setenv("HOME", "/proc/nowhere", 1);
  const Outcome broken = command({"doctor"});
  EXPECT_EQ(broken.code, 1) << "no log folder can be made there";
  EXPECT_THAT(broken.out, HasSubstr("Something essential is missing."));
}

// What the program's user may ask for: nothing is uploaded without consent, and with it the road from the
// hang to the outbox and back is gone by itself.
TEST_F(CommandLine, UploadsOpensAndChecksForLeaks) {
  if (!kPreload) GTEST_SKIP() << "the library cannot be preloaded in this build";
  const fs::path opened = home_.path() / "opened";
  script("xdg-open", "#!/bin/sh\necho \"$1\" >>'" + opened.string() + "'\n");
  const char* const path = getenv("PATH");
  const std::vector<std::string> variables = {"PATH=" + home_.path().string() + ":" + path, "DISPLAY=:99"};
  HostProcess secretive(COMMAND, {"run", "--no-log", "--", HOST}, home_.path());
  HostProcess host(COMMAND, {"run", "--upload-to", (home_.path() / "out box").string(), "--", HOST},
                   home_.path(), variables);
  secretive.tell({"turn 0.5"});
  host.tell({"turn 6.5", "block 4", "turn 0.5"});
  ASSERT_TRUE(secretive.finished());
  const std::string other = std::to_string(secretive.pid());
  ASSERT_TRUE(e2e::eventually([&] { return command({"post", other, "a note"}).code == 0; }));
  expectRefused({"upload", other}, 1, "was started without --upload-to or --upload-command");
  expectRefused({"open", other}, 1, "keeps no logs");
  expectRefused({"leak-check", other}, 1, "keeps no logs");
  EXPECT_EQ(secretive.exitStatus(), 0);

  ASSERT_TRUE(host.finished());
  const std::string pid = std::to_string(host.pid());
  ASSERT_THAT(host.hangReports(), Not(IsEmpty()));
  const fs::path outbox = home_.path() / "out box" / pid / "freeze";
  const fs::path report = host.hangReports().front();
  const fs::path copy = outbox / report.parent_path().filename() / report.filename();
  EXPECT_TRUE(e2e::eventually([&] { return contentOf(copy) == contentOf(report); }))
      << copy << " did not come by itself";

  fs::remove_all(outbox);
  const Outcome uploaded = command({"upload", pid});
  EXPECT_EQ(uploaded.code, 0) << uploaded.errors;
  EXPECT_THAT(uploaded.out, testing::ContainsRegex("^[1-9] folders? uploaded to .*/out box\n"));
  EXPECT_EQ(contentOf(copy), contentOf(report));

  EXPECT_EQ(command({"open", pid}).code, 0);
  EXPECT_TRUE(e2e::eventually([&] { return contentOf(opened) == host.diagnosticRoot().string() + "\n"; }));

  const Outcome checked = command({"leak-check", pid});
  EXPECT_EQ(checked.code, 0) << checked.errors;
  EXPECT_THAT(checked.out, HasSubstr("/leaks/quibapp_leaks_"));
  EXPECT_NE(contentOf(fs::path(checked.out.substr(0, checked.out.find('\n')))), "");
  expectRefused({"leak-check", pid}, 1, "at most once in six hours");
}

// The road from a program that knows nothing of the monitor to a readable report.
TEST_F(CommandLine, RunsPostsListsAndShows) {
  if (!kPreload) GTEST_SKIP() << "the library cannot be preloaded in this build";
  HostProcess host(COMMAND, {"run", "--bundle-id", "org.example.host", "--version", "4.2", "--", HOST},
                   home_.path());
  host.tell({"turn 6.5", "block 4", "turn 0.5"});
  ASSERT_TRUE(host.finished());
  const std::string pid = std::to_string(host.pid());
  EXPECT_EQ(command({"post", pid, "a note", "count=3", "text=three words", "flag=true"}).code, 0);
  const Outcome health = command({"doctor", "--pid", pid});
  EXPECT_EQ(health.code, 0) << health.out;
  EXPECT_THAT(health.out, HasSubstr("works    monitor         watches the main thread"));
  EXPECT_THAT(health.out, HasSubstr("works    main-loop       one of its own, which polls"));
  EXPECT_THAT(health.out, HasSubstr("instead: it counts as being in front all the time"));

  const Outcome list = command({"reports", "--json", "--pid", pid});
  ASSERT_EQ(list.code, 0) << list.errors;
  const json files = json::parse(list.out)["files"];
  json hang;
  for (const json& file : files)
    if (file["kind"] == "hang") hang = file;
  ASSERT_TRUE(hang.is_object()) << list.out;
  EXPECT_EQ(hang["process"], "epoll_host");
  EXPECT_THAT(hang["mainThread"].get<std::string>(), testing::ContainsRegex("^(block|obey|main)"))
      << "depends on what the compiler inlines";

  const Outcome shown = command({"show", "--json", hang["path"].get<std::string>()});
  ASSERT_EQ(shown.code, 0) << shown.errors;
  const json report = json::parse(shown.out)["reports"][0];
  EXPECT_EQ(report["facts"]["Identifier"], "org.example.host");
  EXPECT_EQ(report["images"][0]["file"], "same");
  const json& main = report["mainThread"];
  for (const json& frame : main["frames"]) {
    if (frame["index"] != main["blocking"]["frame"]) continue;
    EXPECT_THAT(frame["source"]["file"].get<std::string>(), HasSubstr("epoll_host.c"));
    EXPECT_GT(frame["source"]["line"].get<int>(), 0);
  }
  EXPECT_EQ(host.exitStatus(), 0);
}

}  // namespace
