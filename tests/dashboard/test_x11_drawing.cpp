// Drawing only what has changed, and the facts that a scale is chosen by.
#include <gtest/gtest.h>

#include <cmath>

#include "vitalscope/platform/linux/windows_x11/renderer.h"
#include "vitalscope/platform/linux/windows_x11/scale.h"

namespace {

using qbv::NSColor;
using qbv::Path;
using qbv::Picture;
using qbv::PictureItem;
using qbv::x11::Canvas;
using qbv::x11::Rows;

constexpr qbv::NSRect kWhole{{0, 0}, {100, 100}};

qbv::CGPathRef wave(double level, double phase, double amplitude = 1.6) {
  auto path = std::make_shared<Path>();
  const auto add = [&](qbv::PathElementType type, double x, double y) {
    path->elements.push_back({type, {{{x, y}}}});
  };
  add(qbv::PathElementType::moveTo, 0, level);
  for (int x = 0; x <= 100; x += 2)
    add(qbv::PathElementType::lineTo, x, level + amplitude * std::sin(phase + x * 0.0628));
  add(qbv::PathElementType::lineTo, 100, 100);
  add(qbv::PathElementType::lineTo, 0, 100);
  add(qbv::PathElementType::closePath, 0, 0);
  return path;
}

Picture gauge(qbv::CGPathRef shape, const std::string& text, NSColor color) {
  PictureItem liquid{.kind = PictureItem::Kind::fill, .frame = kWhole, .color = color};
  PictureItem air{.kind = PictureItem::Kind::shape, .frame = kWhole, .color = {1, 1, 1, 0.6}};
  air.path = std::move(shape);
  PictureItem label{.kind = PictureItem::Kind::text, .frame = {{0, 50}, {100, 20}}, .color = {0, 0, 0, 0.6}};
  label.text = text;
  label.fontSize = 17;
  label.alignment = qbv::NSTextAlignment::center;
  PictureItem border{.kind = PictureItem::Kind::border, .frame = kWhole, .color = color};
  border.cornerRadius = 50;
  border.borderWidth = 1;
  Picture picture{liquid, air, label, border};
  for (std::size_t i = 0; i < 3; ++i) picture[i].clip = kWhole;
  for (std::size_t i = 0; i < 3; ++i) picture[i].clipRadius = 50;
  picture[3].clip = kWhole;
  return picture;
}

class DrawingTest : public testing::TestWithParam<double> {
 protected:
  Canvas canvas() const {
    const int side = static_cast<int>(std::lround(100 * GetParam()));
    return {side, side, GetParam()};
  }
  qbv::x11::Rasterizer rasterizer_;
  qbv::x11::LabelFont font_{rasterizer_};
};

TEST_P(DrawingTest, APictureDrawnInStepsIsTheOneDrawnAtOnce) {
  const NSColor green{0, 1, 0, 0.6};
  const NSColor red{1, 0, 0, 0.6};
  const Picture steps[] = {
      gauge(wave(50, 0), "512.00M", green),      gauge(wave(50, 0.13), "512.00M", green),
      gauge(wave(50.3, 0.26), "515.20M", green), gauge(wave(85, 0.39), "2000.00M", red),
      gauge(wave(3, 0.52), "2000.00M", red),     gauge(wave(85, 0.65, 40), "7.00M", red)};
  for (const bool onWhite : {false, true}) {
    qbv::x11::Renderer inSteps(rasterizer_, font_);
    for (const Picture& step : steps) {
      inSteps.draw(canvas(), step, onWhite);
      qbv::x11::Renderer atOnce(rasterizer_, font_);
      atOnce.draw(canvas(), step, onWhite);
      EXPECT_EQ(inSteps.pixels(), atOnce.pixels());
    }
  }
}

TEST_P(DrawingTest, OnlyTheCrestIsDrawnAnewWhenTheWaveMoves) {
  const NSColor green{0, 1, 0, 0.6};
  qbv::x11::Renderer renderer(rasterizer_, font_);
  const Picture first = gauge(wave(30, 0), "300.00M", green);
  renderer.draw(canvas(), first, false);
  EXPECT_TRUE(renderer.draw(canvas(), first, false).empty()) << "nothing changed";
  const auto changed = renderer.draw(canvas(), gauge(wave(30, 0.13), "300.00M", green), false);
  ASSERT_EQ(changed.size(), 1u);
  EXPECT_LE(changed[0].bottom - changed[0].top, static_cast<int>(std::ceil(3.2 * GetParam())) + 2);
  const auto text = renderer.draw(canvas(), gauge(wave(30, 0.26), "301.00M", green), false);
  EXPECT_EQ(text.size(), 2u) << "the label's rows and the crest's, nothing in between";
}

TEST_P(DrawingTest, TheSilhouetteIsTheGauge) {
  qbv::x11::Renderer renderer(rasterizer_, font_);
  const NSColor green{0, 1, 0, 0.6};
  renderer.draw(canvas(), gauge(wave(50, 0), "512.00M", green), true);
  const double radius = 50 * GetParam();
  double area = 0;
  for (const qbv::x11::PixelRun& run : renderer.silhouette()) {
    area += run.width;
    const double up = radius - run.row - 0.5;
    const double halfWidth = std::sqrt(std::max(radius * radius - up * up, 0.0));
    EXPECT_NEAR(run.left, radius - halfWidth, 4 * GetParam()) << run.row;
    EXPECT_NEAR(run.left + run.width, radius + halfWidth, 4 * GetParam()) << run.row;
  }
  EXPECT_NEAR(area / (radius * radius), 3.1416, 0.03);
  const unsigned before = renderer.geometry();
  renderer.draw(canvas(), gauge(wave(70, 1), "700.00M", {1, 1, 0, 0.6}), true);
  EXPECT_EQ(renderer.geometry(), before) << "waves, words and colours leave it alone";
}

TEST_P(DrawingTest, TextIsMadeToFitItsPlace) {
  const double scale = GetParam();
  const qbv::NSRect place{{0, 0}, {100 * scale, 20 * scale}};
  for (const char* const text : {"7.00M", "102400.00M", "\xC3\xA4\xFF\xE2\x82\xACx"}) {
    const auto outline = font_.line(text, 17 * scale, qbv::NSTextAlignment::center, place);
    ASSERT_FALSE(outline.raw().points.empty()) << "the machine has no font";
    double left = place.size.width * 64;
    double right = 0;
    for (const FT_Vector& point : outline.raw().points) {
      left = std::min(left, static_cast<double>(point.x));
      right = std::max(right, static_cast<double>(point.x));
      EXPECT_GE(point.y, 0);
      EXPECT_LE(static_cast<double>(point.y), place.size.height * 64);
    }
    EXPECT_GE(left, -32);
    EXPECT_NEAR(left + right, place.size.width * 64, 0.04 * place.size.width * 64) << "centred";
  }
}

INSTANTIATE_TEST_SUITE_P(Scales, DrawingTest, testing::Values(1.0, 1.25, 2.0));

TEST(ScaleTest, TheUsersWordComesBeforeTheScreensSize) {
  using qbv::x11::chooseScale;
  const std::string usual = "Xcursor.size:\t24\nXft.dpi:\t96\nXft.rgba:\tnone\n";
  EXPECT_EQ(chooseScale({}), 1);
  EXPECT_EQ(chooseScale({.resources = usual, .pixelWidth = 3840, .millimetres = 340}), 1);
  EXPECT_EQ(chooseScale({.resources = usual, .gdkScale = "2"}), 2);
  EXPECT_EQ(chooseScale({.resources = "Xft.dpi: 144"}), 1.5);
  EXPECT_EQ(chooseScale({.pixelWidth = 3840, .millimetres = 340}), 2) << "287 pixels per inch";
  EXPECT_EQ(chooseScale({.pixelWidth = 1920, .millimetres = 340}), 1);
  EXPECT_EQ(chooseScale({.pixelWidth = 1920, .millimetres = 16}), 1) << "16 × 9 mm is no size but a ratio";
  for (const char* const nonsense : {"", "x", "-3", "0.2", "nan"})
    EXPECT_EQ(chooseScale({.gdkScale = nonsense}), 1) << nonsense;
  EXPECT_EQ(chooseScale({.gdkScale = "1e9"}), 4);
}

}  // namespace
