#include <cstdlib>
#include <utility>

#include "vitalscope/platform/dates.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/portable/civil.h"

namespace qbv {

namespace {

std::string padded(long value, std::size_t digits) {
  std::string text = std::to_string(std::labs(value));
  if (text.size() < digits) text.insert(0, digits - text.size(), '0');
  return value < 0 ? '-' + text : text;
}

// x: +01 or +0130, xx: +0100, xxx: +01:00
std::string offsetText(long seconds, std::size_t letters) {
  const long minutes = std::labs(seconds) / 60;
  std::string text(1, seconds < 0 && minutes != 0 ? '-' : '+');
  text += padded(minutes / 60, 2);
  if (letters == 1 && minutes % 60 == 0) return text;
  if (letters >= 3) text += ':';
  return text + padded(minutes % 60, 2);
}

std::string fieldText(const CalendarTime& time, char letter, std::size_t letters) {
  switch (letter) {
    case 'y':
      return padded(time.year, letters);
    case 'M':
      return padded(time.month, letters);
    case 'd':
      return padded(time.day, letters);
    case 'H':
      return padded(time.hour, letters);
    case 'm':
      return padded(time.minute, letters);
    case 's':
      return padded(time.second, letters);
    case 'x':
      return offsetText(time.utcOffsetSeconds, letters);
    default:
      return std::string(letters, letter);
  }
}

}  // namespace

DateFormatter::DateFormatter(std::string pattern) : pattern_(std::move(pattern)) {}

std::string DateFormatter::stringFromDate(AbsoluteTime time) const {
  const CalendarTime local = platform().dates.localTime(time);
  std::string text;
  for (std::size_t begin = 0; begin < pattern_.size();) {
    std::size_t end = pattern_.find_first_not_of(pattern_[begin], begin);
    if (end == std::string::npos) end = pattern_.size();
    text += fieldText(local, pattern_[begin], end - begin);
    begin = end;
  }
  return text;
}

long calendarDaysBetween(AbsoluteTime from, AbsoluteTime to) {
  Dates& dates = platform().dates;
  return static_cast<long>(daysSince1970(dates.localTime(to)) - daysSince1970(dates.localTime(from)));
}

}  // namespace qbv
