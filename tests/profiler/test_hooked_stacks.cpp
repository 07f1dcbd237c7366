// Stacks through hooked sends, as the debugger and our own captures see them, in a program that is linked as
// a host is. QBV_HOOK_VICTIM names it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/platform/debugger_witness.h"

namespace {

using qbv::test::Victim;

// What the capture's lines and the debugger's have in common: the functions from the innermost method out.
const std::vector<std::string> kCalls{
    "innermost", "hook_objc_msgSend", "middle", "hook_objc_msgSend_stret|hook_objc_msgSend",
    "outer",     "hook_objc_msgSend", "outer",  "hook_objc_msgSend",
    "outer",     "hook_objc_msgSend", "outer",  "hook_objc_msgSend",
    "main"};

bool names(const std::string& line, const std::string& alternatives) {
  std::istringstream text(alternatives);
  for (std::string one; std::getline(text, one, '|');)
    if (line.find(one) != std::string::npos) return true;
  return false;
}

// The lines from the one that names the innermost method on name these calls, one each.
void expectCalls(const std::vector<std::string>& lines) {
  std::string all;
  for (const std::string& line : lines) all += line + "\n";
  std::size_t at = 0;
  while (at < lines.size() && !names(lines[at], kCalls[0])) ++at;
  ASSERT_LE(at + kCalls.size(), lines.size()) << all;
  for (std::size_t i = 0; i < kCalls.size(); ++i)
    ASSERT_TRUE(names(lines[at + i], kCalls[i]))
        << "line " << at + i << " does not name " << kCalls[i] << "\n"
        << all;
}

std::vector<std::string> debuggerSays(const std::string& command) {
  return qbv::test::linesOf(qbv::test::shell(command).output);
}

const std::string kDebugger = "gdb -batch -nx -iex 'set debuginfod enabled off' ";

class HookedStacksTest : public ::testing::TestWithParam<const char*> {};

TEST_P(HookedStacksTest, CapturesAndTheDebuggerSeeTheTrueCallers) {
  Victim victim({QBV_HOOK_VICTIM, GetParam()});
  const std::vector<std::string> captured = victim.linesUntilReady();
  {
    SCOPED_TRACE("own capture");
    expectCalls(captured);
  }
  if (!qbv::test::debuggerIsInstalled()) GTEST_SKIP() << "no debugger";
  SCOPED_TRACE("debugger");
  std::vector<std::string> frames =
      debuggerSays(kDebugger + "-p " + std::to_string(victim.pid()) + " -ex bt 2>&1");
  std::erase_if(frames, [](const std::string& line) { return line.rfind('#', 0) != 0; });
  expectCalls(frames);
}

INSTANTIATE_TEST_SUITE_P(EveryWay, HookedStacksTest, ::testing::Values("waiting", "working"));

TEST(HookedRunTest, RecordsWhatTheMainThreadSentThroughItsImportsDuringTheRun) {
  Victim victim({QBV_HOOK_VICTIM, "records"});
  EXPECT_EQ(victim.linesUntilReady(),
            (std::vector<std::string>{"result 7", "1 Victim slow 1", "0 Victim guarded 1"}));
}

TEST(HookedRunTest, EveryInstructionOfTheTrampolineLeavesTheStackReadable) {
  if (!qbv::test::debuggerIsInstalled()) GTEST_SKIP() << "no debugger";
  const std::vector<std::string> lines =
      debuggerSays(kDebugger + "-x " QBV_STEP_SCRIPT " --args " QBV_HOOK_VICTIM " stepped 2>&1");
  std::string all, verdict;
  for (const std::string& line : lines) {
    all += line + "\n";
    if (line.rfind("stepped ", 0) == 0) verdict = line;
  }
  int steps = 0, inHook = 0, broken = -1;
  ASSERT_EQ(std::sscanf(verdict.c_str(), "stepped %d hook %d broken %d", &steps, &inHook, &broken), 3) << all;
  EXPECT_GT(inHook, 30) << all;
  EXPECT_EQ(broken, 0) << all;
}

}  // namespace
