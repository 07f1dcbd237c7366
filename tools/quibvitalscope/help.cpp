#include "tools/quibvitalscope/help.h"

#include <charconv>
#include <memory>
#include <sstream>

namespace qbv::cli {
namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kOptionColumns = 26;

std::string wrappedLine(const std::string& line, std::size_t width) {
  std::string result;
  std::size_t column = 0;
  std::istringstream words(line);
  for (std::string word; words >> word;) {
    const bool breaks = column > 0 && column + 1 + word.size() > width;
    if (column > 0) result += breaks ? "\n" : " ";
    column = (breaks || column == 0 ? 0 : column + 1) + word.size();
    result += word;
  }
  return result;
}

class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter(std::string usage, std::string description)
      : usage_(std::move(usage)), description_(std::move(description)) {
    column_width(kOptionColumns);
    label("Positionals", "Arguments");
  }

  std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
    return "Usage: quibvitalscope " + usage_ + "\n";
  }
  std::string make_description(const CLI::App* /*app*/) const override {
    return wrapped(description_, kColumns) + "\n\n";
  }
  std::string make_footer(const CLI::App* app) const override {
    return wrapped(app->get_footer(), kColumns) + "\n";
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    return wrapped(option->get_description(), kColumns - kOptionColumns);
  }
  // What an option expects is said in its description; types such as TEXT add nothing to it.
  std::string make_option_opts(const CLI::Option* option) const override {
    return option->get_positional() || option->get_type_size() == 0 ? "" : " " + option->get_type_name();
  }

 private:
  std::string usage_;
  std::string description_;
};

}  // namespace

std::string wrapped(const std::string& text, std::size_t width) {
  std::string result;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!result.empty()) result += "\n";
    result += line.starts_with(' ') ? line : line.size() > width ? wrappedLine(line, width) : line;
  }
  return result;
}

void setHelp(CLI::App& command, const std::string& usage, const std::string& description) {
  command.formatter(std::make_shared<HelpFormatter>(usage, description));
}

CLI::Validator processId() {
  return CLI::Validator(
      [](std::string& text) {
        int value = 0;
        const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        const bool valid = error == std::errc() && stop == text.data() + text.size() && value > 0;
        return valid ? std::string() : "'" + text + "' is no process id";
      },
      "");
}

CLI::Validator oneOf(std::vector<std::string> words) {
  return CLI::Validator(
      [words = std::move(words)](std::string& text) {
        std::string list;
        for (const std::string& word : words) {
          if (word == text) return std::string();
          list += (list.empty() ? "" : ", ") + word;
        }
        return "'" + text + "' is none of " + list;
      },
      "");
}

}  // namespace qbv::cli
