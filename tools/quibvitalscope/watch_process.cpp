#include "tools/quibvitalscope/watch_process.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <ctime>

#include "vitalscope/platform/linux/attribute_file.h"
#include "vitalscope/platform/linux/proc_text.h"

namespace qbv::cli {
namespace {

std::optional<std::uint64_t> number(std::string_view word) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || end != word.data() + word.size() || word.empty()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<ProcessReading> readingOf(std::string_view stat, std::string_view status) {
  const std::size_t nameBegin = stat.find('(');
  const std::size_t nameEnd = stat.rfind(')');  // a name may hold anything, parentheses too
  if (nameBegin == std::string_view::npos || nameEnd == std::string_view::npos || nameEnd < nameBegin)
    return std::nullopt;
  std::array<std::string_view, 20>
      fields;  // the state, which the manual calls field 3, to the start time, 22
  std::string_view rest = stat.substr(nameEnd + 1);
  for (std::string_view& field : fields) field = linux_backend::nextWord(rest);
  const auto user = number(fields[11]);
  const auto system = number(fields[12]);
  const auto threads = number(fields[17]);
  const auto start = number(fields[19]);
  const bool isOver = fields[0] == "Z" || fields[0] == "X";
  const auto footprint = linux_backend::footprintOfStatus(status);
  if (isOver || !user || !system || !threads || !start || !footprint) return std::nullopt;
  return ProcessReading{std::string(stat.substr(nameBegin + 1, nameEnd - nameBegin - 1)), *footprint,
                        *user + *system, *start, *threads};
}

std::optional<ProcessReading> readProcess(std::uint32_t process) {
  const std::string folder = "/proc/" + std::to_string(process);
  const auto stat = linux_backend::attributeText(folder + "/stat");
  const auto status = linux_backend::attributeText(folder + "/status");
  return stat && status ? readingOf(*stat, *status) : std::nullopt;
}

double cpuPercent(const ProcessReading& before, const ProcessReading& after, double seconds,
                  double ticksPerSecond) {
  if (!(seconds > 0) || after.cpuTicks < before.cpuTicks) return 0;
  return 100 * static_cast<double>(after.cpuTicks - before.cpuTicks) / ticksPerSecond / seconds;
}

double clockTicksPerSecond() {
  return static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double age(const ProcessReading& reading) {
  std::timespec sinceBoot{};
  ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
  return static_cast<double>(sinceBoot.tv_sec) + static_cast<double>(sinceBoot.tv_nsec) / 1e9 -
         static_cast<double>(reading.startTicks) / clockTicksPerSecond();
}

}  // namespace qbv::cli
