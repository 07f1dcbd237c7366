// Frame by frame beside another witness: the debugger's own backtrace of the same threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/platform/debugger_witness.h"

namespace {

using namespace qbv::test;

struct Told {
  std::string scene, end;
  int thread = 0;
  Addresses addresses;
};

Told readTold(const std::string& line) {
  std::istringstream text(line);
  Told told;
  std::string thread;
  std::getline(text, told.scene, ';');
  std::getline(text, thread, ';');
  std::getline(text, told.end, ';');
  told.thread = std::atoi(thread.c_str());
  told.addresses = readAddresses(text);
  return told;
}

// What the victim found of each scene; empty when it died before it was ready.
std::vector<Told> scenesOf(Victim& victim) {
  std::vector<Told> scenes;
  for (const std::string& line : victim.linesUntilReady()) scenes.push_back(readTold(line));
  return scenes;
}

TEST(LinuxUnwind, findsTheSameFramesAsTheDebugger) {
  if (!debuggerIsInstalled()) GTEST_SKIP() << "gdb is not installed";
  Victim victim({QBV_UNWIND_VICTIM});
  const std::vector<Told> scenes = scenesOf(victim);
  ASSERT_GE(scenes.size(), 12U);
  const std::map<int, Addresses> witness = debuggerFrames(victim.pid());
  for (const Told& told : scenes) {
    SCOPED_TRACE(told.scene);
    ASSERT_EQ(witness.count(told.thread), 1U);
    Addresses theirs = witness.at(told.thread);
    ASSERT_GE(theirs.size(), 4U);
    Addresses ours = told.addresses;
    ASSERT_FALSE(ours.empty());
    // A running thread's own address moves; one that is about to repeat its system call stands 2 bytes
    // before.
    const std::uint64_t apart = ours[0] > theirs[0] ? ours[0] - theirs[0] : theirs[0] - ours[0];
    EXPECT_LE(apart, told.scene == "spin" ? 64U : 2U);
    ours[0] = theirs[0] = 0;
    // The debugger takes what lies below the first function of a context for frames.
    if (told.scene == "context") theirs.resize(std::min(theirs.size(), ours.size()));
    EXPECT_EQ(inHex(ours), inHex(theirs));
  }
}

// Whether the walk knows that it is complete, and does with the two registers that it is given.
TEST(LinuxUnwind, walksEverySceneToItsEndWithoutAskingForRegisters) {
  Victim victim({QBV_UNWIND_VICTIM});
  const std::vector<Told> scenes = scenesOf(victim);
  ASSERT_GE(scenes.size(), 12U);
  for (const Told& told : scenes) {
    SCOPED_TRACE(told.scene);
    EXPECT_EQ(told.end, "outermost");
    const std::size_t deep = told.scene == "sort" ? 160 : told.scene == "recursion" ? 152 : 5;
    EXPECT_GE(told.addresses.size(), deep - (told.scene == "context" ? 1U : 0U));
  }
}

}  // namespace
