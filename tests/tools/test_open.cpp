#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/platform/temporary_folder.h"
#include "tests/support/commands.h"

namespace {

// Runs the companion program as a monitor does: by name, its folder first on the PATH.
class Open : public testing::Test {
 protected:
  Open() {
    ::setenv("PATH", (std::string(QBV_COMPANIONS) + ":" + folder_.path() + ":/usr/bin:/bin").c_str(), 1);
    ::setenv("DISPLAY", ":0", 1);
  }
  void program(const std::string& name, const std::string& script) {
    std::ofstream(folder_ / name) << "#!/bin/sh\n" << script << "\n";
    ASSERT_EQ(::chmod((folder_ / name).c_str(), 0700), 0);
  }
  // Its exit status; everything that holds its output open would be waited for.
  static int run(const std::string& arguments) {
    return qbv::test::shell("open " + arguments + " 2>/dev/null").code;
  }
  std::string told() {
    std::string text;
    std::getline(std::ifstream(folder_ / "told"), text);
    return text;
  }
  qbv::TemporaryFolder folder_;
};

TEST_F(Open, HandsAnyPathToTheDesktopsOpenerAndDoesNotWait) {
  ASSERT_EQ(::mkfifo((folder_ / "go").c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo((folder_ / "told").c_str(), 0600), 0);
  program("xdg-open",
          "read line <'" + (folder_ / "go") + "'; echo \"$#:$1 $PATH\" >'" + (folder_ / "told") + "'");
  EXPECT_EQ(run("'/tmp/ada'\\''s $HOME; \"logs\"'"), 0);
  std::ofstream(folder_ / "go") << "go\n";
  EXPECT_EQ(told(), "1:/tmp/ada's $HOME; \"logs\" " + folder_.path() + ":/usr/bin:/bin");
}

TEST_F(Open, TakesTheNextOpenerAndSaysWhenThereIsNone) {
  // A PATH with nothing of the system's: a shell, and what the test puts there.
  ::setenv("PATH", (std::string(QBV_COMPANIONS) + ":" + folder_.path()).c_str(), 1);
  EXPECT_EQ(run("/tmp"), 1);
  ASSERT_EQ(::mkfifo((folder_ / "told").c_str(), 0600), 0);
  program("gio", "echo \"$#:$1 $2\" >'" + (folder_ / "told") + "'");
  EXPECT_EQ(run("/tmp"), 0);
  EXPECT_EQ(told(), "2:open /tmp");
  ::unsetenv("DISPLAY");
  ::unsetenv("WAYLAND_DISPLAY");
  EXPECT_EQ(run("/tmp"), 1);
  EXPECT_EQ(run(""), 2);
}

}  // namespace
