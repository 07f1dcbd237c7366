// Waiting threads of a program whose functions keep frame pointers, and of one whose functions do not,
// compiled in every usual way: captures neither cut their waits short nor lose a frame.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/platform/debugger_witness.h"

namespace {

using namespace qbv::test;

struct Counts {
  long waits = 0, interrupted = 0, captures = 0, incomplete = 0;
};

Counts countsOf(const std::vector<std::string>& lines) {
  Counts counts;
  std::string word;
  std::istringstream text(lines.empty() ? "" : lines.front());
  text >> word >> counts.waits >> counts.interrupted >> counts.captures >> counts.incomplete;
  return counts;
}

TEST(LinuxWaits, noneIsInterruptedAndEveryStackIsComplete) {
  Victim victim({QBV_WAIT_VICTIM, QBV_WAIT_CAPTURES});
  const Counts counts = countsOf(victim.linesUntilReady());
  EXPECT_GE(counts.captures, 55 * std::atol(QBV_WAIT_CAPTURES));
  EXPECT_GT(counts.waits, 500);
  EXPECT_EQ(counts.interrupted, 0) << "of " << counts.waits;
  EXPECT_EQ(counts.incomplete, 0) << "of " << counts.captures;
}

TEST(LinuxWaits, everyStackIsTheDebuggers) {
  if (!debuggerIsInstalled()) GTEST_SKIP() << "gdb is not installed";
  Victim victim({QBV_WAIT_VICTIM, "20"});
  std::vector<std::string> lines = victim.linesUntilReady();
  ASSERT_GE(lines.size(), 56U);
  lines.erase(lines.begin());
  const std::map<int, Addresses> witness = debuggerFrames(victim.pid());
  for (const std::string& line : lines) {
    std::istringstream text(line);
    std::string name, thread;
    std::getline(text, name, ';');
    std::getline(text, thread, ';');
    SCOPED_TRACE(name);
    ASSERT_EQ(witness.count(std::atoi(thread.c_str())), 1U);
    Addresses theirs = witness.at(std::atoi(thread.c_str()));
    Addresses ours = readAddresses(text);
    ASSERT_GE(theirs.size(), 6U);
    ASSERT_FALSE(ours.empty());
    // A wait that is about to begin again stands 2 bytes before.
    EXPECT_LE(ours[0] - theirs[0], 2U);
    ours[0] = theirs[0] = 0;
    EXPECT_EQ(inHex(ours), inHex(theirs));
  }
}

}  // namespace
