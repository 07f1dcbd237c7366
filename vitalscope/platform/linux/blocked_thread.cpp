#include "vitalscope/platform/linux/blocked_thread.h"

#include <unistd.h>

#include <charconv>

#include "vitalscope/platform/linux/cpu_usage.h"
#include "vitalscope/platform/linux/proc_text.h"

namespace qbv::linux_backend {

namespace {

std::optional<std::uint64_t> takeHexadecimal(std::string_view word) {
  if (word.substr(0, 2) != "0x") return std::nullopt;
  std::uint64_t value = 0;
  const char* const end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data() + 2, end, value, 16);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return value;
}

// Cuts the last blank-separated word off.
std::string_view takeLastWord(std::string_view& text) {
  const std::size_t blank = text.rfind(' ');
  if (blank == std::string_view::npos) return {};
  const std::string_view word = text.substr(blank + 1);
  text = text.substr(0, blank);
  return word;
}

}  // namespace

SystemCallLine parseSystemCallLine(std::string_view text) {
  SystemCallLine line;
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  if (text == "running") {
    line.state = SystemCallLine::State::running;
    return line;
  }
  const auto programCounter = takeHexadecimal(takeLastWord(text));
  const auto stackPointer = takeHexadecimal(takeLastWord(text));
  for (std::size_t i = line.arguments.size(); i-- > 0 && text.find(' ') != std::string_view::npos;) {
    const auto argument = takeHexadecimal(takeLastWord(text));
    if (!argument) return {};
    line.arguments[i] = *argument;
  }
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), line.number);
  // A thread that has ended and is not yet gone has no stack.
  if (error != std::errc{} || !programCounter || !stackPointer || *stackPointer == 0) return {};
  line.state = SystemCallLine::State::blocked;
  line.stackPointer = *stackPointer;
  line.programCounter = *programCounter;
  return line;
}

BlockedThread::BlockedThread(std::uint32_t thread, int folder)
    : thread_(thread), file_(openThreadFile(thread, "syscall", folder)) {}

BlockedThread::~BlockedThread() {
  if (file_ >= 0) close(file_);
}

SystemCallLine BlockedThread::read() const {
  char text[256];
  const ssize_t size = file_ < 0 ? -1 : pread(file_, text, sizeof text, 0);
  return size <= 0 ? SystemCallLine{} : parseSystemCallLine({text, static_cast<std::size_t>(size)});
}

const SystemCallLine& BlockedThread::look() {
  cpu_ = threadCpuNanoseconds(thread_);
  line_ = read();
  return line_;
}

bool BlockedThread::unmoved() {
  return line_.state == SystemCallLine::State::blocked && read() == line_ && cpu_ &&
         threadCpuNanoseconds(thread_) == cpu_;
}

}  // namespace qbv::linux_backend
