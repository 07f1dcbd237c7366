// Whole processes: a host whose main thread hangs leaves reports that name what it hangs in, and nothing else
// does. Hosts of one case run at the same time, since each takes its seconds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/end_to_end/host_process.h"

namespace {

namespace fs = std::filesystem;
using e2e::HostProcess;
using e2e::TemporaryFolder;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const std::string kInternal = "someone@" QBV_MAIL_DOMAIN;
const std::vector<std::string> kLogs = {"--log", "--email", kInternal};
const std::vector<std::string> kNoLogs = {"--no-log", "--email", kInternal};

// Signs in, comes to the front and lets the warm-up pass. The pause before it comes to the front is for the
// start sequence: a host that is active too early counts as inactive.
const std::vector<std::string> kWarmUp = {"signin", "turn 1", "active", "turn 6"};

std::size_t lineWith(const std::vector<std::string>& lines, const std::string& word) {
  for (std::size_t index = 0; index < lines.size(); ++index)
    if (lines[index].find(word) != std::string::npos) return index;
  return lines.size();
}

void expectMainThreadIn(const fs::path& report, const std::string& inner, const std::string& outer) {
  const std::string text = e2e::contentOf(report);
  EXPECT_THAT(text, HasSubstr("\nException Type:   MainThread Block\n")) << report;
  EXPECT_THAT(text, HasSubstr("\nBinary Images:\n")) << report;
  const std::vector<std::string> block = e2e::mainThreadBlock(text);
  ASSERT_THAT(block, Not(IsEmpty())) << report << "\n" << text;
  const std::string shown = testing::PrintToString(block);
  EXPECT_LT(lineWith(block, inner), block.size()) << shown;
  EXPECT_LT(lineWith(block, inner), lineWith(block, outer)) << shown;
  EXPECT_LT(lineWith(block, outer), lineWith(block, "main ")) << shown;
  EXPECT_LT(lineWith(block, "main "), block.size()) << shown;
}

void expectPrivate(const fs::path& folder) {
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    struct stat status {};
    ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, entry.is_directory() ? 0700U : 0600U) << entry.path();
  }
}

TEST(HangReports, HangsBecomeReportsThatNameWhatBlocks) {
  const TemporaryFolder home;
  HostProcess sleeps(E2E_HOST, kLogs, home.path());
  HostProcess spins(E2E_HOST, kLogs, home.path());
  HostProcess keepsNoLogs(E2E_HOST, kNoLogs, home.path());
  HostProcess loadsLate(E2E_LATE_HOST, kNoLogs, home.path());
  loadsLate.tell({"load " E2E_LIBRARY});
  for (HostProcess* host : {&sleeps, &spins, &keepsNoLogs, &loadsLate}) host->tell(kWarmUp);
  sleeps.tell({"block 2.5", "turn 4", "block 9", "turn 2"});
  // A busy main thread may be a CPU finding first, and then a hang only five seconds later.
  spins.tell({"spin 9", "turn 2"});
  for (HostProcess* host : {&keepsNoLogs, &loadsLate})
    host->tell({"block 2.5", "turn 5", "block 9", "turn 1"});

  for (HostProcess* host : {&sleeps, &spins, &keepsNoLogs, &loadsLate}) ASSERT_TRUE(host->finished());
  ASSERT_THAT(sleeps.hangReports("light"), Not(IsEmpty()));
  ASSERT_THAT(sleeps.hangReports("freeze"), Not(IsEmpty()));
  ASSERT_THAT(spins.hangReports(), Not(IsEmpty()));

  for (const fs::path& report : sleeps.hangReports())
    expectMainThreadIn(report, "copyFromSlowShare", "importAttachments");
  for (const fs::path& report : spins.hangReports())
    expectMainThreadIn(report, "evaluateFormulas", "recalculateSheet");
  EXPECT_THAT(e2e::contentOf(sleeps.hangReports("freeze").front()), HasSubstr("\"anrLevel\":5"));

  for (HostProcess* host : {&keepsNoLogs, &loadsLate}) {
    ASSERT_THAT(host->hangReports("freeze"), Not(IsEmpty()));
    expectMainThreadIn(host->hangReports("freeze").front(), "copyFromSlowShare", "importAttachments");
    std::vector<std::string> folders;
    for (const auto& entry : fs::directory_iterator(host->diagnosticRoot()))
      folders.push_back(entry.path().filename().string());
    EXPECT_THAT(folders, ElementsAre("freeze")) << "a build that keeps no logs keeps hang reports only";
  }
  expectPrivate(home.path());
  for (HostProcess* host : {&sleeps, &spins, &keepsNoLogs, &loadsLate}) EXPECT_EQ(host->exitStatus(), 0);
}

TEST(HangReports, NothingIsReportedWhenNobodyShallWatch) {
  const TemporaryFolder home;
  HostProcess warmingUp(E2E_HOST, kLogs, home.path());
  HostProcess behind(E2E_HOST, kLogs, home.path());
  HostProcess signedOut(E2E_HOST, kLogs, home.path());
  HostProcess stranger(E2E_HOST, {"--log", "--email", "someone@elsewhere.example"}, home.path());
  HostProcess nobody(E2E_HOST, kLogs, home.path());
  warmingUp.tell({"signin", "turn 0.5", "active", "block 2.5"});
  behind.tell(kWarmUp);
  behind.tell({"inactive", "block 2.5"});
  signedOut.tell(kWarmUp);
  signedOut.tell({"signout", "turn 1", "block 2.5"});
  stranger.tell(kWarmUp);
  stranger.tell({"block 2.5"});
  nobody.tell({"active", "turn 6", "block 2.5"});

  for (HostProcess* host : {&warmingUp, &behind, &signedOut, &stranger, &nobody}) {
    host->tell({"turn 1"});
    ASSERT_TRUE(host->finished());
    EXPECT_THAT(host->hangReports(), IsEmpty()) << host->pid();
  }
  EXPECT_THAT(nobody.threadNames(), SizeIs(1)) << "nobody signed in, so no thread was needed";
  for (HostProcess* host : {&stranger, &nobody}) EXPECT_FALSE(fs::exists(host->diagnosticRoot()));
  for (HostProcess* host : {&warmingUp, &behind, &signedOut, &stranger, &nobody})
    EXPECT_EQ(host->exitStatus(), 0);
}

// Removes what a host without HOME left in the home of the user who runs the tests.
void removeFromRealHome(const fs::path& realHome, pid_t pid) {
  std::error_code ignored;
  fs::path folder = realHome / "Library/Logs/quibapp/Diagnostic" / std::to_string(pid);
  fs::remove_all(folder, ignored);
  while (folder != realHome && !ignored) {
    folder = folder.parent_path();
    fs::remove(folder, ignored);  // only when it is empty
  }
}

TEST(HangReports, FolderThatCannotBeWrittenNeverDisturbsTheHost) {
  const TemporaryFolder blocked;
  std::ofstream(blocked.path() / "Library") << "in the way";
  const TemporaryFolder home;
  HostProcess homeless(E2E_HOST, kLogs, std::nullopt);
  HostProcess readOnly(E2E_HOST, kLogs, "/proc");
  HostProcess fileInTheWay(E2E_HOST, kLogs, blocked.path());
  HostProcess fileAtTheRoot(E2E_HOST, kNoLogs, home.path());
  fs::create_directories(fileAtTheRoot.diagnosticRoot().parent_path());
  std::ofstream(fileAtTheRoot.diagnosticRoot()) << "in the way";

  for (HostProcess* host : {&homeless, &readOnly, &fileInTheWay, &fileAtTheRoot}) {
    host->tell(kWarmUp);
    host->tell({"block 2.5", "turn 2", "signout", "turn 0.5"});
  }
  for (HostProcess* host : {&homeless, &readOnly, &fileInTheWay, &fileAtTheRoot}) {
    const pid_t pid = host->pid();
    EXPECT_TRUE(host->finished());
    EXPECT_EQ(host->exitStatus(), 0);
    if (host == &homeless) removeFromRealHome(e2e::homeFromPasswordDatabase(), pid);
  }
  EXPECT_EQ(e2e::contentOf(blocked.path() / "Library"), "in the way");
}

}  // namespace
