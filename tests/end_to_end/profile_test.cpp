// A host's message sends, profiled by the host's own notifications and from outside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/end_to_end/host_process.h"
#include "tests/support/commands.h"

namespace {

namespace fs = std::filesystem;
using e2e::contentOf;
using e2e::eventually;
using e2e::HostProcess;
using qbv::test::Outcome;
using testing::HasSubstr;
using testing::SizeIs;

struct Line {
  double milliseconds;
  std::string rest;
};

std::vector<Line> linesOf(const std::string& text) {
  std::vector<Line> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    std::smatch parts;
    if (std::regex_match(line, parts, std::regex(" *([0-9]+\\.[0-9]{2})ms\\|( .*)")))
      lines.push_back({std::stod(parts[1]), parts[2]});
  }
  return lines;
}

// 300 ms with 150 and 120 ms inside of it. Nothing is faster than it says; a busy machine may be slower.
void expectReload(const std::vector<Line>& lines, std::size_t first) {
  ASSERT_GE(lines.size(), first + 3);
  const Line& reload = lines[first];
  const Line& save = lines[first + 1];
  const Line& parse = lines[first + 2];
  EXPECT_EQ(reload.rest, " -[Foo reload]");
  EXPECT_EQ(save.rest, "   -[Bar save]");
  EXPECT_EQ(parse.rest, "   -[Bar parse]");
  EXPECT_GE(save.milliseconds, 120);
  EXPECT_GE(parse.milliseconds, 150);
  EXPECT_GE(reload.milliseconds, save.milliseconds + parse.milliseconds + 29);
  EXPECT_LT(reload.milliseconds, 3000);
}

class Profile : public testing::Test {
 protected:
  Profile() {
    const fs::path opener = home_.path() / "xdg-open";
    std::ofstream(opener) << "#!/bin/sh\nprintf %s \"$1\" > '" << opened().string() << ".part'\nmv '"
                          << opened().string() << ".part' '" << opened().string() << "'\n";
    chmod(opener.c_str(), 0755);
    variables_ = {"PATH=" + home_.path().string() + ":" + std::getenv("PATH"),
                  "XDG_RUNTIME_DIR=" + home_.path().string(), "DISPLAY="};
  }
  fs::path opened() const { return home_.path() / "opened"; }
  fs::path page(const HostProcess& host) const {
    return host.diagnosticRoot() / "inspect_info_record/method_timer_profiler.html";
  }

  e2e::TemporaryFolder home_;
  std::vector<std::string> variables_;
};

TEST_F(Profile, NotificationsFlipARunAndItsPageIsOpened) {
  HostProcess host(PROFILE_HOST, {}, home_.path(), variables_);
  ASSERT_TRUE(eventually([&] { return fs::exists(opened()); }));
  EXPECT_TRUE(fs::equivalent(contentOf(opened()), page(host)));
  const std::string text = contentOf(page(host));
  EXPECT_THAT(text,
              testing::StartsWith("<h2>Quib Method Time Profiler</h2><xmp>\n\nTime profile result : \n"));
  EXPECT_THAT(text, testing::EndsWith("\n\nTime profile end\n</xmp>"));
  const std::vector<Line> lines = linesOf(text);
  EXPECT_THAT(lines, SizeIs(3));
  expectReload(lines, 0);
  const std::size_t total = text.find("\n\nTotal time in record:");
  ASSERT_NE(total, std::string::npos);
  EXPECT_DOUBLE_EQ(std::stod(text.substr(total + 23)), lines[0].milliseconds);
  const auto file = nlohmann::json::parse(contentOf(page(host).replace_extension("json")));
  EXPECT_EQ(file["records"][0]["records"][1]["method"], "parse");
}

#ifndef QBV_SANITIZED  // a sanitized library cannot be preloaded
Outcome command(const std::vector<std::string>& variables, const std::string& arguments) {
  std::string line = "env";
  for (const std::string& variable : variables) line += " '" + variable + "'";
  return qbv::test::shell(line + " '" COMMAND "' " + arguments + " 2>/dev/null");
}

TEST_F(Profile, TheCommandLineRecordsForAWhile) {
  HostProcess host(COMMAND, {"run", "--", PROFILE_HOST, "--serve"}, home_.path(), variables_);
  const std::string pid = std::to_string(host.pid());
  ASSERT_TRUE(eventually([&] { return fs::exists(home_.path() / "quibvitalscope" / (pid + ".sock")); }));
  const Outcome tree = command(variables_, "profile " + pid + " --seconds 2");
  EXPECT_EQ(tree.code, 0);
  std::vector<Line> lines = linesOf(tree.output);
  // The first call may have been under way when the run began, and then is not in it, but its calls are.
  while (!lines.empty() && lines.front().rest != " -[Foo reload]") lines.erase(lines.begin());
  expectReload(lines, 0);
  EXPECT_FALSE(fs::exists(opened()));
  EXPECT_THAT(contentOf(page(host)), HasSubstr("-[Foo reload]"));

  const fs::path file = home_.path() / "calls.json";
  EXPECT_EQ(
      command(variables_, "profile " + pid + " --seconds 1 --format speedscope -o " + file.string()).code, 0);
  EXPECT_FALSE(nlohmann::json::parse(contentOf(file))["profiles"][0]["events"].empty());

  // A run whose program ends is over at once.
  std::thread user([&] {
    EXPECT_TRUE(eventually([&] { return !fs::exists(page(host)); })) << "removed when the run begins";
    kill(host.pid(), SIGKILL);
  });
  EXPECT_EQ(command(variables_, "profile " + pid + " --seconds 3600").code, 1);
  user.join();

  EXPECT_EQ(command(variables_, "profile " + pid + " --seconds 0").code, 2);
  EXPECT_EQ(command(variables_, "profile 2147483647").code, 1);
}
#endif

}  // namespace
