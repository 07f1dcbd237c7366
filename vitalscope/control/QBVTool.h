// The gates that ask the host about itself, and small tools that every room uses.
#pragma once

#include <optional>
#include <string>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/value.h"

namespace qbv {

// The organisation's mail domain this library was built for: only its users are monitored. Any thread.
QBV_EXPORT const char* mailDomain() noexcept;

// Full label of a monitor's queue: the mail domain's words in reverse order, ".", the suffix; for example
// "example.quibapp.mainthread.monitor". Any thread.
std::string queueLabel(const std::string& suffix);

// The text as one word of a shell's command line: as it is when nothing in it means anything to a shell, else
// in single quotes. Any thread.
QBV_EXPORT std::string shellWord(const std::string& text);

}  // namespace qbv

// Stateless. All operations: any thread, not in signal handlers.
class QBV_EXPORT QBVTool {
 public:
  // A compile-time switch: true would let every user pass the internal-account gate.
  static constexpr bool inDebug() noexcept { return false; }

  // The two gates. They ask the host each time, so an answer may change with the signed-in user; the host's
  // code runs on the calling thread.
  // True when the host's class "NSBundle" answers the class message isLogVersion with a number other than 0.
  static bool isLogVersion();
  // True when the host's class "QBKXAppInterfaceAdapter" has a profile whose e-mail is one name at
  // mailDomain(), compared byte by byte. Anything missing on the way is false.
  static bool isInternalAccount();

  // Runs "/bin/bash" "-c" command and waits until it has closed its standard output: not on the main thread.
  // What it wrote, whatever its exit status; nothing when that is not UTF-8.
  static std::optional<std::string> cmd(const std::string& command);

  // The process identifier in decimal.
  static std::string currentProcessID();

  // The hang level that a report path encodes: 1 to 5 for the first of "/light", "/moderate", "/heavier",
  // "/severe", "/freeze", in this order, that it contains; 0 for none.
  static int anrLevelWithPath(const std::string& path) noexcept;

  // JSON text of an array or a dictionary, on one line; "" for anything JSON cannot hold.
  static std::string dictToString(const qbv::Value& dictionary);
};
