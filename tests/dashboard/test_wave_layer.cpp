// The shape of the wave, its timer, and the conversion of paths.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "vitalscope/dashboard/NSBezierPath_CGPath.h"
#include "vitalscope/dashboard/QBVDashboardWaveLayer.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace {

using qbv::NSPoint;
using qbv::PathElementType;

class WaveLayerTest : public testing::Test {
 protected:
  std::shared_ptr<QBVDashboardWaveLayer> layer(double width, double height) {
    auto made = std::make_shared<QBVDashboardWaveLayer>();
    made->setFrame({{0, 0}, {width, height}});
    made->setTotalValue(1024);
    return made;
  }

  qbv::ScriptedPlatform scripted;
};

TEST_F(WaveLayerTest, TheFirstFrameIsTheAreaAboveAStandingSine) {
  const auto wave = layer(100, 100);
  wave->setTargetValue(512);
  wave->setCurrentWaveLayerPath();
  ASSERT_NE(wave->path(), nullptr);
  const auto& elements = wave->path()->elements;
  ASSERT_EQ(elements.size(), 55u);
  EXPECT_EQ(elements[0].type, PathElementType::moveTo);
  EXPECT_EQ(elements[0].points[0], (NSPoint{0, 50}));
  for (std::size_t i = 1; i <= 51; ++i) {
    const double x = 2.0 * static_cast<double>(i - 1);
    EXPECT_EQ(elements[i].type, PathElementType::lineTo);
    EXPECT_EQ(elements[i].points[0].x, x);
    EXPECT_NEAR(elements[i].points[0].y, 50 + 1.625 * std::sin(2 * std::numbers::pi * x / 100), 1e-6);
  }
  // The factor is 1.2999999523162842, not 1.3: at the crest that is what is left of 1.625.
  EXPECT_NEAR(elements[13].points[0].y - 50,
              1.2999999523162842 * 100 / 80 * std::sin(0.48 * std::numbers::pi), 1e-12);
  EXPECT_EQ(elements[52].points[0], (NSPoint{100, 100}));
  EXPECT_EQ(elements[53].points[0], (NSPoint{0, 100}));
  EXPECT_EQ(elements[54].type, PathElementType::closePath);
}

TEST_F(WaveLayerTest, LevelsAreCappedAndMeasuredWithTheWidth) {
  const auto wave = layer(100, 40);
  for (const auto& [target, level] :
       {std::pair{870.4, 85.0}, {1024.0, 85.0}, {2000.0, 85.0}, {102.4, 10.0}}) {
    wave->setTargetValue(target);
    wave->setCurrentWaveLayerPath();
    EXPECT_NEAR(wave->path()->elements[0].points[0].y, level, 1e-9) << target;
    EXPECT_EQ(wave->path()->elements[53].points[0], (NSPoint{0, 40}));
  }
}

TEST_F(WaveLayerTest, OddAndNegativeWidths) {
  const auto odd = layer(99, 99);
  odd->setTargetValue(512);
  odd->setCurrentWaveLayerPath();
  const auto& elements = odd->path()->elements;
  EXPECT_EQ(elements[elements.size() - 4].points[0].x, 98) << "the last even x within the width";
  const auto negative = layer(-4, 10);
  negative->setTargetValue(512);
  negative->setCurrentWaveLayerPath();
  EXPECT_EQ(negative->path()->elements.size(), 4u) << "no wave, but a frame";
}

TEST_F(WaveLayerTest, WithoutValuesOrWidthTheShapeStaysAndThePhaseStands) {
  const auto wave = layer(100, 100);
  wave->setCurrentWaveLayerPath();
  EXPECT_EQ(wave->path(), nullptr);
  wave->setTargetValue(512);
  wave->setCurrentWaveLayerPath();
  const qbv::CGPathRef shape = wave->path();
  EXPECT_EQ(shape->elements[1].points[0].y, 50) << "the phase has not moved before";
  wave->setTotalValue(0);
  wave->setCurrentWaveLayerPath();
  wave->setTotalValue(1024);
  wave->setFrame({{0, 0}, {0, 100}});
  wave->setCurrentWaveLayerPath();
  EXPECT_EQ(wave->path(), shape);
}

TEST_F(WaveLayerTest, ThePhaseIsSharedAndAdvancesByAFixedStep) {
  const auto first = layer(100, 100);
  const auto second = layer(100, 100);
  for (const auto& wave : {first, second}) wave->setTargetValue(512);
  first->setCurrentWaveLayerPath();
  second->setCurrentWaveLayerPath();
  const double amplitude = 1.2999999523162842 * 100 / 80;
  EXPECT_NEAR(second->path()->elements[1].points[0].y, 50 + amplitude * std::sin(0.12732395447351627), 1e-12);
}

TEST_F(WaveLayerTest, RunsEveryThirtyMillisecondsOnTheMainQueue) {
  const auto wave = layer(100, 100);
  wave->setTargetValue(512);
  wave->startWave();
  scripted.advance(0);
  EXPECT_EQ(wave->path(), nullptr) << "frames wait for the main queue";
  scripted.runLoop.drainAll();
  qbv::CGPathRef shape = wave->path();
  ASSERT_NE(shape, nullptr) << "the first comes at once";
  scripted.advance(0.029);
  scripted.runLoop.drainAll();
  EXPECT_EQ(wave->path(), shape);
  scripted.advance(0.001);
  scripted.runLoop.drainAll();
  EXPECT_NE(wave->path(), shape);

  wave->startWave();
  EXPECT_EQ(scripted.dispatch.liveTimerCount(), 1u) << "a second start leaves no timer behind";
  wave->stopWave();
  wave->stopWave();
  EXPECT_EQ(scripted.dispatch.liveTimerCount(), 0u);
  EXPECT_EQ(wave->waveTimer(), nullptr);
  shape = wave->path();
  scripted.advance(1);
  scripted.runLoop.drainAll();
  EXPECT_EQ(wave->path(), shape) << "the last shape stays";
}

TEST_F(WaveLayerTest, ConvertsEveryKindOfElementAndNothingIntoNothing) {
  qbv::NSBezierPath path;
  EXPECT_EQ(qbv::CGPath(path), nullptr);
  path.moveToPoint({1, 2});
  const auto onlyMove = qbv::CGPath(path);
  ASSERT_EQ(onlyMove->elements.size(), 1u);
  path.lineToPoint({3, 4});
  path.curveToPoint({9, 10}, {5, 6}, {7, 8});
  path.closePath();
  const auto all = qbv::CGPath(path);
  const qbv::Path expected{{{PathElementType::moveTo, {{{1, 2}}}},
                            {PathElementType::lineTo, {{{3, 4}}}},
                            {PathElementType::curveTo, {{{5, 6}, {7, 8}, {9, 10}}}},
                            {PathElementType::closePath, {}}}};
  EXPECT_EQ(*all, expected) << "control points come before the end point";
  EXPECT_EQ(onlyMove->elements.size(), 1u) << "a converted path no longer changes";
}

}  // namespace
