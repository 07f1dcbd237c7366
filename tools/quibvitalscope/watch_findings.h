// What a process's diagnostic folder tells at present: its reports and the minute's record.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qbv::cli {

// Hangs by level, light to freeze.
using LevelCounts = std::array<std::uint64_t, 5>;

// Ticks at each level in the text of a record; nothing when it is no record. Pure.
std::optional<LevelCounts> hangTicks(std::string_view record);

struct Finding {
  std::string time;
  std::string kind;
  std::string level;  // of a hang
  std::string where;  // what the main thread was in; "" when the report does not tell
};

struct Findings {
  bool hasFolder = false;  // the process has written something
  std::optional<LevelCounts> ticks;
  std::string recordTime;  // when the record was written
  LevelCounts hangReports{};
  std::map<std::string, std::size_t> otherReports;  // by kind: memory, allocation, leaks, power
  std::vector<Finding> reports;                     // newest first
};

// Looks into one process's folder again and again; reads a report once.
class FindingsReader {
 public:
  FindingsReader(std::string root, std::uint32_t process);
  // At most `most` reports are read and answered; all are counted.
  Findings read(std::size_t most);

 private:
  // By path and size: a file that is still being written is read again.
  const std::string& whereOf(const std::string& path);

  std::string root_;
  std::uint32_t process_;
  std::map<std::pair<std::string, std::uint64_t>, std::string> read_;
};

}  // namespace qbv::cli
