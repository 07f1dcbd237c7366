// quibvitalscope stacks: stack files as they are found, sound and not.
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/tools/command_line.h"
#include "vitalscope/memory/QBStackHighSpeedLogger.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class StacksCommand : public CommandLine {
 protected:
  // The bytes of a file with these stacks, each of two frames that tell its number: count and bytes.
  static std::string fileWith(const std::vector<std::pair<std::uint32_t, std::uint32_t>>& stacks) {
    std::string bytes(500 * sizeof(qbv::StackSlot), '\0');
    for (std::size_t number = 0; number < stacks.size(); ++number) {
      qbv::StackSlot slot{};
      slot.count = stacks[number].first;
      slot.size = stacks[number].second;
      slot.depth = 2;
      slot.stack_id = number;
      slot.frames[0] = 0x1000 + number;
      slot.frames[1] = 0x2000;
      std::memcpy(bytes.data() + number * sizeof slot, &slot, sizeof slot);
    }
    return bytes;
  }
  static std::vector<std::uint64_t> bytesOf(const Outcome& outcome) {
    std::vector<std::uint64_t> result;
    const json answer = json::parse(outcome.out);
    for (const json& stack : answer["stacks"]) result.push_back(stack["bytes"]);
    return result;
  }
};

TEST_F(StacksCommand, ShowsTheHeaviestFirst) {
  const std::string file =
      place("9/dump/stack_backtrace.mmap", fileWith({{3, 2 << 20}, {1, 5 << 20}, {900, 3 << 20}})).string();
  const Outcome text = command({"stacks", file, "--top", "2"});
  EXPECT_EQ(text.code, 0) << text.errors;
  EXPECT_THAT(text.out, testing::StartsWith("10.0 MiB in 904 allocations, stacks: 3, the heaviest 2\n\n"
                                            "5.0 MiB in 1 allocation\n"));
  EXPECT_LT(text.out.find("5.0 MiB in 1 "), text.out.find("3.0 MiB in 900 allocations\n"));
  EXPECT_THAT(text.errors, HasSubstr("no report of the process, so addresses have no names"));
  EXPECT_THAT(bytesOf(command({"stacks", file, "--json"})), ElementsAre(5 << 20, 3 << 20, 2 << 20));
  EXPECT_THAT(bytesOf(command({"stacks", file, "--json", "--by", "count"})),
              ElementsAre(3 << 20, 2 << 20, 5 << 20));
  EXPECT_EQ(command({"stacks", file, "--folded", "--top", "1"}).out, "0x2000;0x1001 5242880\n");
  EXPECT_EQ(command({"stacks", "--folded", "--by", "count", "--top", "1"}).out, "0x2000;0x1002 900\n")
      << "without a name it is the newest file there is";
}

TEST_F(StacksCommand, TellsWhatIsWrongWithAFile) {
  const std::string sound = fileWith({{1, 2 << 20}, {1, 3 << 20}});
  const std::string cut = place("7/dump/stack_backtrace.mmap", sound.substr(0, 536 + 100)).string();
  const Outcome short_ = command({"stacks", cut, "--json"});
  EXPECT_EQ(short_.code, 1);
  EXPECT_THAT(bytesOf(short_), ElementsAre(2 << 20)) << "what is whole is shown";
  EXPECT_THAT(short_.errors, HasSubstr(cut + ": the file is cut short: it has 636 of 268000 bytes"));

  expectRefused({"stacks", script("tiny", "too small").string()}, 1, "tiny is no stack file: 9 bytes");
  expectRefused({"stacks", script("empty", "").string()}, 1, "empty is empty");
  std::string noise(268000, '\0');
  std::mt19937 random(7);
  for (char& byte : noise) byte = static_cast<char>(random());
  expectRefused({"stacks", script("noise", noise).string()}, 1, "most of its slots make no sense");
  expectRefused({"stacks", home_.path().string()}, 1, "is no regular file");
  expectRefused({"stacks", "/nowhere"}, 1, "cannot open /nowhere");
  expectRefused({"stacks", "--json", "--folded", cut}, 2, "--folded");
  expectRefused({"stacks", "--by", "weight"}, 2, "'weight' is none of bytes, count");

  const std::string none = script("none", fileWith({})).string();
  const Outcome nothing = command({"stacks", none});
  EXPECT_EQ(nothing.code, 0);
  EXPECT_THAT(nothing.out, HasSubstr("No stack is above the monitor's threshold."));
  EXPECT_EQ(command({"stacks", "--folded", none}).out, "");
}

// A running process tells its images by itself: no report is needed.
TEST_F(StacksCommand, NamesWhereARunningProcessAllocates) {
  e2e::HostProcess host(E2E_HOST, {"--log", "--email", "someone@" QBV_MAIL_DOMAIN}, home_.path());
  host.tell({"signin", "turn 1"});
  const std::string file = (host.diagnosticRoot() / "dump/stack_backtrace.mmap").string();
  Outcome outcome;
  // What is noted before the monitor's tables are there is not recorded.
  ASSERT_TRUE(e2e::eventually([&] {
    host.tell({"note 4"});
    if (!host.finished()) return true;
    outcome = command({"stacks", file, "--json"});
    return outcome.code == 0 && !bytesOf(outcome).empty();
  }));
  ASSERT_EQ(outcome.code, 0) << outcome.errors;
  EXPECT_THAT(outcome.errors, IsEmpty());
  EXPECT_THAT(outcome.out, HasSubstr("renderSlides"));
  EXPECT_THAT(outcome.out, HasSubstr("memory_work.cpp"));
  EXPECT_TRUE(json::parse(outcome.out)["report"].is_null());
}

// From allocations in a process that is killed to names: the images are those that its last report lists.
TEST_F(StacksCommand, NamesWhereAKilledProcessAllocated) {
  std::string file;
  {
    e2e::HostProcess host(E2E_HOST, {"--log", "--email", "someone@" QBV_MAIL_DOMAIN}, home_.path());
    host.tell({"signin", "turn 1", "active", "turn 6", "note 4", "block 4", "turn 1"});
    ASSERT_TRUE(host.finished());
    ASSERT_TRUE(e2e::eventually([&] {
      const auto reports = host.hangReports();
      return !reports.empty() && e2e::contentOf(reports[0]).find("\nextraData: ") != std::string::npos;
    }));
    file = (host.diagnosticRoot() / "dump/stack_backtrace.mmap").string();
    ASSERT_EQ(kill(host.pid(), SIGKILL), 0);
  }
  const Outcome outcome = command({"stacks", file, "--json"});
  ASSERT_EQ(outcome.code, 0) << outcome.errors;
  EXPECT_THAT(outcome.errors, IsEmpty());
  const json answer = json::parse(outcome.out);
  ASSERT_THAT(bytesOf(outcome), ElementsAre(8 << 20, 4 << 20)) << outcome.out;
  EXPECT_THAT(answer["stacks"][0]["frames"].dump(), HasSubstr("renderSlides"));
  EXPECT_THAT(answer["stacks"][1]["frames"].dump(), HasSubstr("loadSlides"));
  const json inner = answer["stacks"][0]["frames"][0];
  EXPECT_THAT(inner["function"].get<std::string>(), HasSubstr("takeAndNote"));
  EXPECT_EQ(inner["image"], "e2e_host");
  EXPECT_THAT(inner["source"]["file"].get<std::string>(), HasSubstr("memory_work.cpp"));

  const std::string folded = command({"stacks", file, "--folded"}).out;
  EXPECT_THAT(folded, testing::ContainsRegex("main;[^\n]*renderSlides;[^\n]*takeAndNote 8388608\n"));

  const std::string foreign = place("77/freeze/x.hang", e2e::contentOf(GOLDEN_FOLDER "/hang.hang")).string();
  const Outcome other = command({"stacks", file, "--folded", "--report", foreign});
  EXPECT_THAT(other.errors, HasSubstr("is a report of process 4242"));
  EXPECT_THAT(other.out, Not(HasSubstr("renderSlides")));
  expectRefused({"stacks", file, "--report", script("notes", "notes\n").string()}, 1, "notes is no report");
}

}  // namespace
