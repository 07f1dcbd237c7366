#include "tools/report_reader/parse.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

namespace qbv::reader {
namespace {

constexpr std::string_view kFirstLabel = "Process:         ";
constexpr std::string_view kMainHeading = "Thread 0:: Dispatch queue: com.apple.main-thread ";
constexpr std::string_view kHeading = "Thread ";
constexpr std::string_view kImagesTitle = "Binary Images:";
constexpr std::string_view kExtraData = "extraData: ";

template <class Number>
bool leadingNumber(std::string_view& text, Number& value) {
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
  return true;
}

std::optional<double> figureAfter(std::string_view line, std::string_view label) {
  const auto at = line.find(label);
  double value = 0;
  if (at == std::string_view::npos) return std::nullopt;
  std::string_view rest = line.substr(at + label.size());
  return leadingNumber(rest, value) ? std::optional(value) : std::nullopt;
}

// The length of the failure sentence that the line begins with; 0 when it begins with none. The next thread's
// heading follows it on the same line.
std::size_t failureLength(std::string_view line) {
  constexpr std::string_view kNumbered = "Fail to get information about thread: ";
  for (const std::string_view sentence :
       {"Fail to get information of all threads", "Fail to get frame pointer"})
    if (line.starts_with(sentence)) return sentence.size();
  if (!line.starts_with(kNumbered)) return 0;
  const auto end = line.find_first_not_of("0123456789", kNumbered.size());
  return std::min(end, line.size());
}

class Parser {
 public:
  Report take(std::string_view text) {
    const bool ended = text.ends_with('\n');
    while (!text.empty()) {
      const auto end = std::min(text.find('\n'), text.size());
      std::string_view line = text.substr(0, end);
      text.remove_prefix(std::min(end + 1, text.size()));
      if (line.ends_with('\r')) line.remove_suffix(1);
      readLine(line, text.empty() && !ended);
    }
    finish(ended);
    return std::move(report_);
  }

 private:
  enum class Block { header, threads, images, rest };

  void readLine(std::string_view line, bool cutOff) {
    if (startBlock(line)) return;
    if (line.empty()) {
      inThread_ = false;
      if (block_ == Block::images && !report_.images.empty()) block_ = Block::rest;
      return;
    }
    bool understood = false;
    if (block_ == Block::header) understood = readFact(line);
    if (block_ == Block::threads && inThread_) understood = readFrame(line);
    if (block_ == Block::images) understood = readImage(line);
    if (!understood && !cutOff) noteUnread(line);
  }

  bool startBlock(std::string_view line) {
    if (line == kImagesTitle) return block_ = Block::images, true;
    if (line.starts_with(kExtraData)) return readExtraData(line.substr(kExtraData.size())), true;
    if (block_ != Block::header && block_ != Block::threads) return false;
    for (std::size_t length = failureLength(line); length > 0; length = failureLength(line)) {
      block_ = Block::threads;
      inThread_ = false;
      report_.failures.emplace_back(line.substr(0, length));
      line.remove_prefix(length);
      if (line.empty()) return true;
    }
    return readHeading(line);
  }

  bool readHeading(std::string_view line) {
    Thread thread;
    if (line.starts_with(kMainHeading)) {
      thread.main = true;
      thread.id = report_.processId;
      thread.cpuPercent = figureAfter(line, ", CPU:");
      thread.memoryMegabytes = figureAfter(line, ", Memory Usage:");
    } else {
      if (!line.starts_with(kHeading)) return false;
      line.remove_prefix(kHeading.size());
      if (!leadingNumber(line, thread.id) || !line.starts_with(":")) return false;
    }
    block_ = Block::threads;
    inThread_ = true;
    report_.threads.push_back(std::move(thread));
    return true;
  }

  bool readFact(std::string_view line) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return false;
    std::string_view value = line.substr(colon + 1);
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    const std::string_view label = line.substr(0, colon);
    if (label == "Process") readProcess(value);
    if (!value.empty() && value != "(null)") report_.facts.emplace_back(label, value);
    return true;
  }

  void readProcess(std::string_view value) {
    const auto open = value.rfind(" [");
    report_.process = value.substr(0, open);
    if (open == std::string_view::npos) return;
    std::string_view number = value.substr(open + 2);
    if (!leadingNumber(number, report_.processId))
      report_.problems.emplace_back("the process id is unreadable");
  }

  bool readFrame(std::string_view line) {
    std::optional<Frame> frame = parseFrame(line);
    if (frame) report_.threads.back().frames.push_back(std::move(*frame));
    return frame.has_value();
  }

  bool readImage(std::string_view line) {
    std::optional<Image> image = parseImage(line);
    if (image) report_.images.push_back(std::move(*image));
    return image.has_value();
  }

  void readExtraData(std::string_view text) {
    block_ = Block::rest;
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_object()) {
      report_.extraData = text;
    } else {
      report_.problems.emplace_back("the extra data is no JSON object");
    }
  }

  void noteUnread(std::string_view line) {
    if (unread_++ == 0) firstUnread_ = line.substr(0, 80);
  }

  void finish(bool ended) {
    if (unread_ > 0)
      report_.problems.push_back(std::to_string(unread_) +
                                 " lines are not understood, the first: " + firstUnread_);
    if (report_.threads.empty() && report_.failures.empty()) {
      report_.problems.emplace_back("cut off before the stacks");
    } else if (report_.images.empty()) {
      report_.problems.emplace_back("cut off before the list of images");
    } else if (!ended) {
      report_.problems.emplace_back("cut off in the last line");
    }
  }

  Report report_;
  Block block_ = Block::header;
  bool inThread_ = false;
  std::size_t unread_ = 0;
  std::string firstUnread_;
};

std::string_view secondLine(std::string_view text) {
  const auto end = text.find('\n');
  return end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
}

}  // namespace

TextKind textKind(std::string_view text) {
  if (!text.starts_with(kFirstLabel)) return TextKind::other;
  const std::string_view next = secondLine(text);
  if (next.starts_with("Identifier:")) return TextKind::report;
  return next.starts_with("Path:") ? TextKind::sample : TextKind::other;
}

std::string processName(std::string_view text) {
  if (!text.starts_with(kFirstLabel)) return "";
  const std::string_view line = text.substr(kFirstLabel.size(), text.find('\n') - kFirstLabel.size());
  const auto open = line.rfind(" [");
  return open == std::string_view::npos ? "" : std::string(line.substr(0, open));
}

std::vector<std::string_view> splitReports(std::string_view text) {
  std::vector<std::string_view> reports;
  const std::string separator = "\n" + std::string(kFirstLabel);
  while (!text.empty()) {
    const auto next = text.find(separator);
    const std::size_t length = next == std::string_view::npos ? text.size() : next + 1;
    reports.push_back(text.substr(0, length));
    text.remove_prefix(length);
  }
  return reports;
}

std::optional<Report> parseReport(std::string_view text) {
  if (textKind(text) != TextKind::report) return std::nullopt;
  return Parser().take(text);
}

std::string_view Report::fact(std::string_view label) const {
  const auto found =
      std::find_if(facts.begin(), facts.end(), [&](const auto& f) { return f.first == label; });
  return found == facts.end() ? std::string_view{} : std::string_view(found->second);
}

const Thread* Report::mainThread() const {
  const auto found = std::find_if(threads.begin(), threads.end(), [](const Thread& t) { return t.main; });
  return found == threads.end() ? nullptr : &*found;
}

const Image* Report::imageAt(std::uint64_t address) const {
  const auto found = std::find_if(images.begin(), images.end(), [&](const Image& image) {
    return image.begin <= address && address <= image.end;
  });
  return found == images.end() ? nullptr : &*found;
}

}  // namespace qbv::reader
