// From which size and how often the memory monitor acts.
#pragma once

namespace qbv {

inline constexpr double kOutOfMemoryMegabytes = 1024.0;
inline constexpr double kSecondsBetweenMemoryReports = 3600;
inline constexpr double kSecondsBetweenLeakChecks = 6 * 3600;
inline constexpr int kSecondsBetweenMemorySamples = 60;
// The sample that makes it as many pushes the oldest one out.
inline constexpr unsigned kSamplesTooMany = 60;

}  // namespace qbv
