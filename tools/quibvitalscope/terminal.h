// Text for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace qbv::cli {

// Control characters and broken UTF-8 replaced by "?", so that no file can command the terminal.
std::string printable(std::string_view text);

// Filled up with blanks to this many characters (not bytes); never cut off.
std::string padded(std::string text, std::size_t width);

// Wraps a text into colours, or leaves it as it is.
class Style {
 public:
  enum class Mode { automatic, always, never };
  // Automatic: when standard output is a terminal, TERM is not "dumb" and NO_COLOR is not set.
  explicit Style(Mode mode);

  std::string dim(std::string_view text) const { return wrap("2", text); }
  std::string bold(std::string_view text) const { return wrap("1", text); }
  std::string alarm(std::string_view text) const { return wrap("1;31", text); }
  std::string good(std::string_view text) const { return wrap("32", text); }
  std::string warning(std::string_view text) const { return wrap("33", text); }

 private:
  std::string wrap(const char* code, std::string_view text) const;
  bool colours_;
};

}  // namespace qbv::cli
