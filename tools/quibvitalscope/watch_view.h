// The live picture of a process, as lines of text.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "tools/quibvitalscope/terminal.h"
#include "tools/quibvitalscope/watch_findings.h"

namespace qbv::cli {

// The last minute's values of something, one a tick.
class History {
 public:
  static constexpr std::size_t kMost = 60;
  void add(double value);
  const std::deque<double>& values() const { return values_; }
  double peak() const { return peak_; }  // of all that were ever added

 private:
  std::deque<double> values_;
  double peak_ = 0;
};

struct WatchState {
  std::string time;  // local, of this tick
  std::uint32_t process = 0;
  std::string name;
  double ageSeconds = 0;
  std::uint64_t threads = 0;
  History memory;  // megabytes
  History cpu;     // percent of one core
  Findings findings;
};

// All pure. A bar a value, between `floor` (or the least value, if that is less) and the greatest; the lowest
// bar where all are equal. In block characters, or plain ones for a terminal that has no others.
std::string sparkline(const std::deque<double>& values, double floor, bool plain);
// "2:05", "1:02:05", "3 d 1:02:05".
std::string durationText(double seconds);
// At most `rows` lines, the newest reports as far as there is room.
std::vector<std::string> watchLines(const WatchState& state, std::size_t rows, bool plain,
                                    const Style& style);
// The same in one line, for files and pipes.
std::string watchLine(const WatchState& state);

}  // namespace qbv::cli
