#include "vitalscope/platform/linux/windows_x11/scale.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string_view>

namespace qbv::x11 {
namespace {

constexpr double kUsualDotsPerInch = 96;
constexpr double kDenseDotsPerInch = 168;
constexpr double kDensestBelievable = 600;
constexpr double kMillimetresPerInch = 25.4;

double xftDotsPerInch(const std::string& resources) {
  static constexpr std::string_view name = "Xft.dpi:";
  std::istringstream lines(resources);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(name)) return std::strtod(line.c_str() + name.size(), nullptr);
  return 0;
}

double measuredDotsPerInch(const ScaleFacts& facts) {
  if (facts.millimetres <= 0) return 0;
  return facts.pixelWidth * kMillimetresPerInch / facts.millimetres;
}

}  // namespace

double chooseScale(const ScaleFacts& facts) {
  const double wanted = std::max(xftDotsPerInch(facts.resources) / kUsualDotsPerInch,
                                 facts.gdkScale != nullptr ? std::strtod(facts.gdkScale, nullptr) : 0);
  const double measured = measuredDotsPerInch(facts);
  const bool dense = measured > kDenseDotsPerInch && measured < kDensestBelievable;
  const double scale = wanted > 0 ? wanted : dense ? 2 : 1;
  return scale >= 1 ? std::min(scale, 4.0) : 1;
}

}  // namespace qbv::x11
