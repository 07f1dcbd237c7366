// The dashboard on a real display: what it looks like, and what becomes of clicks, drags and lost displays.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <optional>

#include "tests/dashboard/picture.h"
#include "tests/end_to_end/host_process.h"
#include "tests/end_to_end/virtual_display.h"

namespace {

using dashboard_test::Difference;
using dashboard_test::Image;
using dashboard_test::Screenshot;
using testing::Contains;
using testing::Not;

// Every machine draws with the same font.
constexpr char kFonts[] =
    "<?xml version=\"1.0\"?><!DOCTYPE fontconfig SYSTEM \"fonts.dtd\"><fontconfig>"
    "<dir>/usr/share/fonts/truetype/dejavu</dir><cachedir>%s</cachedir>"
    "<alias><family>sans-serif</family><prefer><family>DejaVu Sans</family></prefer></alias></fontconfig>";

// The wave's crest is a twentieth of the picture: it stands at another place when it has run in between.
constexpr double kWaveElsewhere = 0.05;

class DisplayTest : public testing::Test {
 protected:
  void SetUp() override {
    if (display_->name().empty() || std::system("command -v xdotool >/dev/null") != 0)
      GTEST_SKIP() << "the packages xvfb and xdotool are needed";
    std::string fonts = kFonts;
    fonts.replace(fonts.find("%s"), 2, home_.path() / "fonts");
    std::ofstream(home_.path() / "fonts.conf") << fonts;
    screen_.emplace(display_->name());
  }

  std::unique_ptr<e2e::HostProcess> startHost(std::vector<std::string> variables = {}) {
    variables.push_back("FONTCONFIG_FILE=" + (home_.path() / "fonts.conf").string());
    variables.push_back("DISPLAY=" + display_->name());
    return std::make_unique<e2e::HostProcess>(DASHBOARD_HOST, std::vector<std::string>{}, home_.path(),
                                              variables);
  }
  // A host whose dashboard is shown and stands still.
  std::unique_ptr<e2e::HostProcess> startShown(std::vector<std::string> variables = {}) {
    auto host = startHost(std::move(variables));
    host->tell({"toggle", "wait shown", "still"});
    EXPECT_TRUE(host->finished());
    return host;
  }

  // Where the gauge comes up: 100 points square, its bottom left at the middle of the screen's height.
  Image gauge(int scale = 1) const {
    const int side = 100 * scale;
    return screen_->take(screen_->width() - side, screen_->height() / 2 - side, side, side);
  }
  // Looks until the gauge is like the stored picture; how far it is from it in the end.
  void expectLooksLike(const std::string& name, int scale = 1, double tolerated = 0.01) const {
    const std::string path = std::string(DASHBOARD_PICTURES) + "/" + name + ".png";
    if (std::getenv("QBV_STORE_PICTURES") != nullptr && tolerated < kWaveElsewhere) {
      e2e::eventually([] { return false; }, 1);
      ASSERT_TRUE(dashboard_test::writePng(gauge(scale), path));
      return;
    }
    const auto stored = dashboard_test::readPng(path);
    ASSERT_TRUE(stored) << path;
    Difference last;
    EXPECT_TRUE(e2e::eventually(
        [&] {
          last = dashboard_test::difference(gauge(scale), *stored);
          return last.strong < tolerated && last.mean < 100 * tolerated;
        },
        10))
        << name << ": " << last.strong * 100 << " % of the pixels differ, by " << last.mean << " on average";
  }
  int xdotool(const std::string& arguments) const {
    return std::system(("DISPLAY=" + display_->name() + " xdotool " + arguments).c_str());
  }
  int centreX() const { return screen_->width() - 50; }
  int centreY() const { return screen_->height() / 2 - 50; }

  e2e::TemporaryFolder home_;
  std::unique_ptr<e2e::VirtualDisplay> display_ = std::make_unique<e2e::VirtualDisplay>();
  std::optional<Screenshot> screen_;
};

std::string mapsOf(const e2e::HostProcess& host) {
  return e2e::contentOf("/proc/" + std::to_string(host.pid()) + "/maps");
}

TEST_F(DisplayTest, ShowsLevelColourAndFigures) {
  const Image empty = gauge();
  const auto host = startShown();
  host->tell({"memory 0", "cpu 3"});
  expectLooksLike("green_0");
  host->tell({"memory 512", "cpu 12"});
  expectLooksLike("green_512");
  host->tell({"memory 870", "cpu 98"});
  expectLooksLike("yellow_870");
  host->tell({"memory 2000", "cpu 230"});
  expectLooksLike("red_2000");
  host->tell({"toggle"});
  EXPECT_TRUE(e2e::eventually([&] { return gauge() == empty; })) << "hidden, the screen is as it was";
  host->tell({"toggle", "wait shown", "still", "memory 512", "cpu 12"});
  expectLooksLike("green_512", 1, kWaveElsewhere);
  EXPECT_EQ(host->exitStatus(), 0);
}

TEST_F(DisplayTest, IsSharpOnADenseScreen) {
  const auto host = startShown({"GDK_SCALE=2"});
  host->tell({"memory 512", "cpu 12"});
  expectLooksLike("green_512_dense", 2);
}

TEST_F(DisplayTest, MapsDisplayLibrariesAndStartsAThreadOnlyWhenFirstShown) {
  const auto host = startHost();
  host->tell({"turn 0.01"});
  ASSERT_TRUE(host->finished());
  for (const char* const library : {"xcb", "freetype", "fontconfig", "windows_x11"})
    EXPECT_THAT(mapsOf(*host), Not(testing::HasSubstr(library)));
  host->tell({"toggle", "wait shown"});
  ASSERT_TRUE(host->finished());
  EXPECT_THAT(mapsOf(*host), testing::HasSubstr("libquibwindows_x11.so"));
  EXPECT_THAT(host->threadNames(), Contains("quib window"));
}

TEST_F(DisplayTest, AClickOpensTheNewestReport) {
  const std::filesystem::path bin = home_.path() / "bin";
  std::filesystem::create_directory(bin);
  std::ofstream(bin / "xdg-open") << "#!/bin/sh\necho \"$1\" >> \"$HOME/opened\"\n";
  ::chmod((bin / "xdg-open").c_str(), 0755);
  const auto host = startShown({"PATH=" + bin.string() + ":/usr/bin:/bin"});
  const std::filesystem::path folder = host->diagnosticRoot() / "freeze/light";
  std::filesystem::create_directories(folder);
  const std::string click =
      "mousemove " + std::to_string(centreX()) + " " + std::to_string(centreY()) + " click 1";
  host->tell({"memory 300"});
  ASSERT_TRUE(host->finished());

  std::ofstream(folder / "quibapp_stuck_2026-01-02_03_04_05.hang") << "a report\n";
  ASSERT_EQ(xdotool(click), 0);
  EXPECT_TRUE(e2e::eventually([&] {
    return e2e::contentOf(home_.path() / "opened") ==
           (folder / "quibapp_stuck_2026-01-02_03_04_05.hang").string() + "\n";
  })) << e2e::contentOf(home_.path() / "opened");
}

TEST_F(DisplayTest, FollowsADragAndComesBackThere) {
  const auto host = startShown();
  host->tell({"memory 512", "cpu 12"});
  expectLooksLike("green_512");
  const auto at = [](int x, int y) { return " " + std::to_string(x) + " " + std::to_string(y) + " "; };
  ASSERT_EQ(xdotool("mousemove" + at(centreX(), centreY()) + "mousedown 1 mousemove" +
                    at(centreX() - 40, centreY() - 20) + "mousemove" + at(200, 150) + "mouseup 1"),
            0);
  const auto stored = dashboard_test::readPng(std::string(DASHBOARD_PICTURES) + "/green_512.png");
  const auto isThere = [&] {
    return dashboard_test::difference(screen_->take(150, 100, 100, 100), *stored).strong < 0.01;
  };
  EXPECT_TRUE(e2e::eventually(isThere));
  // The user's place is kept, and a drag is no click.
  host->tell({"wait moved", "toggle", "wait hidden"});
  ASSERT_TRUE(host->finished());
  EXPECT_TRUE(e2e::eventually([&] { return !isThere(); }));
  host->tell({"toggle", "wait shown"});
  EXPECT_TRUE(e2e::eventually([&] {
    const Image image = screen_->take(150, 100, 100, 100);
    return image.at(50, 95) != screen_->take(500, 100, 1, 1).at(0, 0);
  }));
}

TEST_F(DisplayTest, KeepsTheHostGoingWithoutADisplayAndTriesAgain) {
  // A number of its own: while this display is down nobody else may come up in its place.
  const std::string name = ":" + std::to_string(300 + ::getpid() % 20000);
  screen_.reset();
  display_ = std::make_unique<e2e::VirtualDisplay>(name);
  ASSERT_EQ(display_->name(), name);
  screen_.emplace(name);
  const auto host = startShown();
  host->tell({"memory 512"});
  ASSERT_TRUE(host->finished());
  screen_.reset();
  display_.reset();
  host->tell({"wait hidden", "turn 0.1"});
  ASSERT_TRUE(host->finished()) << "the connection was lost";
  EXPECT_TRUE(e2e::eventually([&] {
    const auto names = host->threadNames();
    return std::find(names.begin(), names.end(), "quib window") == names.end();
  }));
  host->tell({"toggle", "turn 0.2", "wait hidden"});
  ASSERT_TRUE(host->finished()) << "there is no display to show it on";

  display_ = std::make_unique<e2e::VirtualDisplay>(name);
  ASSERT_EQ(display_->name(), name);
  screen_.emplace(name);
  host->tell({"toggle", "wait shown", "still", "memory 512", "cpu 12", "turn 0.2", "wait shown"});
  ASSERT_TRUE(host->finished());
  expectLooksLike("green_512", 1, kWaveElsewhere);
  EXPECT_EQ(host->exitStatus(), 0);
}

TEST_F(DisplayTest, AForkedChildLeavesTheWindowAlone) {
  const auto host = startShown();
  host->tell({"memory 512", "cpu 12", "fork", "turn 0.1"});
  ASSERT_TRUE(host->finished());
  expectLooksLike("green_512");
}

}  // namespace
