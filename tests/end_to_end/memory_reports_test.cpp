// Whole processes: one that grows past a gigabyte leaves a report, unless its user is in a meeting; one that
// leaves a meeting has its lost blocks listed; one that is killed leaves the stacks of what it had allocated.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

#include "tests/end_to_end/host_process.h"
#include "tools/stack_file/stack_file.h"

namespace {

namespace fs = std::filesystem;
using e2e::HostProcess;
using e2e::TemporaryFolder;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

std::vector<fs::path> reportsIn(const HostProcess& host, const std::string& folder) {
  std::vector<fs::path> reports;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(host.diagnosticRoot() / folder, ignored))
    reports.push_back(entry.path());
  return reports;
}

// Whether the first one is written to its end. A file is there before its text is.
bool hasWholeReport(const std::vector<fs::path>& reports) {
  if (reports.empty()) return false;
  const std::string text = e2e::contentOf(reports[0]);
  const std::size_t last = text.find("\nextraData: ");
  return last != std::string::npos && text.find('\n', last + 1) != std::string::npos;
}

std::vector<fs::path> memoryReports(const HostProcess& host) {
  return reportsIn(host, "app_memory_oversize");
}

TEST(MemoryReports, GigabyteOutsideOfAMeetingBecomesOneReport) {
  const TemporaryFolder home;
  HostProcess host(E2E_HOST, {"--log", "--email", "someone@" QBV_MAIL_DOMAIN}, home.path());
  // Memory is not reported in the first 30 seconds.
  host.tell({"signin", "turn 32", "status 2", "grow 1100", "turn 3"});
  ASSERT_TRUE(host.finished());
  EXPECT_THAT(memoryReports(host), IsEmpty()) << "in a meeting";

  host.tell({"status 0"});
  ASSERT_TRUE(e2e::eventually([&] {
    host.tell({"turn 0.2"});
    return !host.finished() || hasWholeReport(memoryReports(host));
  }));
  host.tell({"grow 50", "turn 3"});
  ASSERT_TRUE(host.finished());
  ASSERT_THAT(memoryReports(host), SizeIs(1)) << "a higher peak within the hour leaves no second one";
  EXPECT_THAT(memoryReports(host)[0].filename().string(), StartsWith("quibapp_overmemory_"));
  const std::string report = e2e::contentOf(memoryReports(host)[0]);
  EXPECT_THAT(report, HasSubstr("\nException Type:   APP Memory Oversize\n"));
  EXPECT_THAT(report, HasSubstr(R"("AppMemoryRecords":"{\"memoryRecords\":[\")"));
  EXPECT_THAT(e2e::mainThreadBlock(report), Not(IsEmpty()));
  EXPECT_EQ(host.exitStatus(), 0);
}

// The writer takes no report of a single block, but all the way to it runs inside the host's allocation.
TEST(MemoryReports, OneOverSizeBlockDoesTheHostNoHarmAndIsCounted) {
  const TemporaryFolder home;
  HostProcess host(E2E_HOST, {"--log", "--email", "someone@" QBV_MAIL_DOMAIN}, home.path());
  host.tell({"signin", "turn 1", "active", "turn 6", "allocate 60", "allocate 60", "block 4", "turn 3"});
  ASSERT_TRUE(host.finished());
  ASSERT_TRUE(e2e::eventually([&] { return hasWholeReport(host.hangReports()); }));
  const fs::path folder = host.diagnosticRoot() / "object_memory_oversize";
  EXPECT_TRUE(!fs::exists(folder) || fs::is_empty(folder));
  const std::string report = e2e::contentOf(host.hangReports()[0]);
#if !defined(QBV_SANITIZED)
  const std::size_t at = report.find("Alloc Memory Live Count:");
  ASSERT_NE(at, std::string::npos) << report;
  EXPECT_NE(std::stoll(report.substr(at + sizeof "Alloc Memory Live Count:")), 0);
#endif
  EXPECT_THAT(report, HasSubstr("OC Object Live Count:"));
  EXPECT_EQ(host.exitStatus(), 0);
}

// How many blocks of so many bytes the leak report lists, in its groups by size.
std::size_t lostBlocks(const std::string& report, std::size_t bytes) {
  std::istringstream lines(report);
  std::size_t blocks = 0;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream columns(line);
    std::size_t count = 0;
    std::size_t total = 0;
    std::size_t size = 0;
    if (columns >> count >> total >> size && size == bytes && total == count * bytes) blocks += count;
  }
  return blocks;
}

TEST(LeakReports, LeavingAMeetingNamesTheBlocksThatWereLost) {
#if defined(QBV_SANITIZED)
  GTEST_SKIP() << "the sanitizer brings its own allocator, whose heap the leak checker does not know";
#endif
  const TemporaryFolder home;
  HostProcess host(E2E_HOST, {"--log", "--email", "someone@" QBV_MAIL_DOMAIN}, home.path());
  host.tell({"signin", "turn 1", "lose 400 3000", "leave", "turn 0.5"});
  ASSERT_TRUE(host.finished());
  EXPECT_THAT(reportsIn(host, "leaks"), IsEmpty()) << "nobody allowed it";

  host.tell({"allowleaks", "leave", "turn 1"});
  ASSERT_TRUE(host.finished());
  ASSERT_TRUE(e2e::eventually([&] {
    const auto reports = reportsIn(host, "leaks");
    return !reports.empty() && e2e::contentOf(reports[0]).find("|a lost draft") != std::string::npos;
  }));
  host.tell({"leave", "turn 1"});
  ASSERT_TRUE(host.finished()) << "it runs on after it was looked at";
  const auto reports = reportsIn(host, "leaks");
  ASSERT_THAT(reports, SizeIs(1)) << "the second meeting was left within six hours";
  EXPECT_THAT(reports[0].filename().string(), StartsWith("quibapp_leaks_"));
  const std::string report = e2e::contentOf(reports[0]);
  EXPECT_THAT(report, StartsWith("Process:         e2e_host [" + std::to_string(host.pid()) + "]\n"));
  // A pointer that is left over in a register or on a stack hides a block.
  EXPECT_GE(lostBlocks(report, 3000), 395U) << report;
  EXPECT_LE(lostBlocks(report, 3000), 400U) << report;
  EXPECT_THAT(report, HasSubstr("|a lost draft"));
  EXPECT_THAT(report, HasSubstr("allocation stacks from the monitor's record\n"));
  EXPECT_THAT(report, testing::ContainsRegex("\nstack 0x[0-9a-f]+: (39[5-9]|400) blocks, [0-9]+ bytes\n"
                                             "    0   0x[0-9a-f]+  e2e_host\\+0x[0-9a-f]+  [^\n]*loseOne"));
  EXPECT_EQ(host.exitStatus(), 0);
}

TEST(StackFile, OutlivesAKilledProcess) {
  const TemporaryFolder folder;
  const fs::path file = folder.path() / "stack_backtrace.mmap";
  {
    HostProcess keeper(E2E_STACK_KEEPER, {file.string()}, folder.path());
    // At the threshold nothing is logged; the second time every stack is. 700 make the file grow.
    keeper.tell({"keep 700", "keep 700"});
    ASSERT_TRUE(keeper.finished());
    ASSERT_EQ(kill(keeper.pid(), SIGKILL), 0);
  }
  std::string error;
  const auto contents = qbv::stack_file::parse(e2e::contentOf(file), error);
  ASSERT_TRUE(contents.has_value()) << error;
  EXPECT_EQ(contents->slots, 1000U);
  EXPECT_THAT(contents->problems, IsEmpty());
  ASSERT_THAT(contents->stacks, SizeIs(700));
  EXPECT_EQ(qbv::stack_file::totalsOf(contents->stacks).bytes, 700U * 2 * 4096);
  for (const auto& stack : contents->stacks) {
    ASSERT_EQ(stack.count, 2U);
    ASSERT_THAT(stack.frames, SizeIs(4));
    ASSERT_EQ(stack.frames.back(), 0x404000U);
  }
}

}  // namespace
