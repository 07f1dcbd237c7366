// Captures of real threads, checked against what the debugger reads from outside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <latch>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/temporary_folder.h"
#include "tests/probes/live_threads.h"
#include "tests/support/commands.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"

namespace qbv {
namespace {

using std::string;

struct Frame {
  std::uint64_t address = 0;
  string symbol;
  friend bool operator==(const Frame&, const Frame&) = default;
};

std::size_t occurrences(const string& text, const string& word) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(word, at)) != string::npos; at += word.size()) ++count;
  return count;
}

// Lines "INDEX IMAGE ADDRESS SYMBOL + OFFSET" of a block; image names hold no blanks here.
std::vector<Frame> framesOf(const string& block) {
  std::istringstream lines(block);
  string line;
  std::getline(lines, line);
  std::vector<Frame> frames;
  while (std::getline(lines, line) && !line.empty()) {
    std::istringstream words(line);
    string index, image, address;
    Frame frame;
    words >> index >> image >> address >> frame.symbol;
    frame.address = std::stoull(address, nullptr, 16);
    frames.push_back(frame);
  }
  return frames;
}

// Real frames only: functions that were inlined have none. Return addresses are named by the call before
// them.
constexpr const char* debuggerScript = R"(
import gdb
gdb.execute("set backtrace past-main on")
gdb.execute("set backtrace past-entry on")
gdb.execute("set print demangle off")
gdb.selected_inferior().threads()[-1].switch()
frame = gdb.newest_frame()
first = True
while frame is not None:
    if frame.type() != gdb.INLINE_FRAME:
        at = frame.pc() if first else frame.pc() - 1
        name = gdb.execute("info symbol %d" % at, to_string=True).split(" ")[0]
        print("FRAME %d %s" % (frame.pc(), name))
        first = False
    frame = frame.older()
)";

std::vector<Frame> debuggersFrames() {
  const TemporaryFolder folder;
  std::ofstream(folder / "frames.py") << debuggerScript;
  const string output = test::shell("DEBUGINFOD_URLS= gdb -nx -q -batch -p " + std::to_string(::getpid()) +
                                    " -x '" + (folder / "frames.py") + "' 2>/dev/null")
                            .output;
  std::istringstream words(output);
  std::vector<Frame> frames;
  for (string word; words >> word;) {
    if (word != "FRAME") continue;
    Frame frame;
    words >> frame.address >> frame.symbol;
    frames.push_back(frame);
  }
  return frames;
}

class LiveCaptureTest : public testing::Test {
 protected:
  LiveCaptureTest() { QBVitalscopeBacktrace::load(); }
};

TEST_F(LiveCaptureTest, TheMainThreadsFramesAreTheDebuggers) {
  if (test::shell("gdb --version 2>&1").code != 0) GTEST_SKIP() << "no debugger to compare with";
  ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
  std::latch standing(1);
  std::latch done(1);
  string block;
  std::vector<Frame> expected;
  std::thread monitor([&] {
    standing.wait();
    // It counts down a moment before it stands still: the debugger's view counts when it lies between two
    // captures that are alike.
    string before;
    do {
      before = block;
      block = QBVitalscopeBacktrace::qbv_backtraceOfMainThread();
      if (framesOf(before) == framesOf(block)) break;
      expected = debuggersFrames();
    } while (true);
    done.count_down();
  });
  qbvStandAtDepth(20, standing, done);
  monitor.join();
  if (expected.empty()) GTEST_SKIP() << "the debugger may not attach here";

  const std::vector<Frame> captured = framesOf(block);
  ASSERT_EQ(captured.size(), expected.size()) << block;
  for (std::size_t i = 0; i < captured.size(); ++i) {
    // The debugger's visit makes the kernel start the innermost wait anew: its counter is back on the call.
    const std::uint64_t restarted = i == 0 && captured[0].address != expected[0].address ? 2 : 0;
    EXPECT_EQ(captured[i].address + restarted, expected[i].address) << i;
    if (expected[i].symbol.starts_with("qbv") || expected[i].symbol == "main") {
      EXPECT_EQ(captured[i].symbol, expected[i].symbol) << i;
    }
  }
  EXPECT_EQ(occurrences(block, "qbvStandAtDepth"), 21U) << block;
  EXPECT_THAT(block, testing::StartsWith("Thread 0:: Dispatch queue: com.apple.main-thread , CPU:"));
}

extern "C" [[gnu::noinline, gnu::noclone]] void qbvSpinUntil(const std::atomic<bool>& stop) {
  while (!stop.load(std::memory_order_relaxed)) continue;
  asm volatile("");
}

TEST_F(LiveCaptureTest, CapturesFromFourThreadsAtOnceDoNotMix) {
  constexpr int standing = 6;
  constexpr int depth = 25;
  const StandingThreads threads(standing, depth);
  std::atomic<bool> stop{false};
  std::thread spinner([&] { qbvSpinUntil(stop); });
  std::vector<std::thread> monitors;
  std::atomic<int> spinnerSeen{0};
  for (int i = 0; i < 4; ++i) {
    monitors.emplace_back([&] {
      for (int round = 0; round < 25; ++round) {
        const string text = QBVitalscopeBacktrace::qbv_backtraceOfAllThread();
        EXPECT_EQ(occurrences(text, " qbvStandAtDepth + "), std::size_t{standing * (depth + 1)}) << text;
        if (occurrences(text, " qbvSpinUntil + ") == 1) ++spinnerSeen;
      }
    });
  }
  for (std::thread& monitor : monitors) monitor.join();
  stop = true;
  spinner.join();
  EXPECT_GT(spinnerSeen, 0);
}

// Threads come and go while the list is walked: a capture reports them or leaves them out, and goes on.
TEST_F(LiveCaptureTest, ThreadsThatEndDuringACaptureDoNoHarm) {
  const StandingThreads threads(3, 10);
  std::atomic<bool> stop{false};
  std::thread starter([&] {
    while (!stop) std::thread([] {}).join();
  });
  for (int round = 0; round < 200; ++round) {
    const string text = QBVitalscopeBacktrace::qbv_backtraceOfAllThread();
    EXPECT_EQ(occurrences(text, " qbvStandAtDepth + "), 33U) << text;
  }
  stop = true;
  starter.join();
}

}  // namespace
}  // namespace qbv
