#include "vitalscope/platform/linux/proc_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>

namespace qbv::linux_backend {

namespace {

std::string_view afterBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  return first == std::string_view::npos ? std::string_view{} : text.substr(first);
}

std::optional<std::uint64_t> number(std::string_view text, int base = 10) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc{}) return std::nullopt;
  return value;
}

// The value of a "Name:\tvalue" line.
std::optional<std::string_view> field(std::string_view text, std::string_view name) {
  for (std::size_t at = text.find(name); at != std::string_view::npos; at = text.find(name, at + 1)) {
    const bool startsLine = at == 0 || text[at - 1] == '\n';
    const std::string_view rest = text.substr(at + name.size());
    if (startsLine && !rest.empty() && rest.front() == ':') return afterBlanks(rest.substr(1));
  }
  return std::nullopt;
}

std::optional<std::uint64_t> kilobytes(std::string_view text, std::string_view name) {
  const auto value = field(text, name);
  return value ? number(*value) : std::nullopt;
}

}  // namespace

std::optional<ProcStat> parseStat(std::string_view text) {
  constexpr int kStartTimeAfterState = 19;  // fields 3 and 22
  const std::size_t nameEnd = text.rfind(')');
  if (nameEnd == std::string_view::npos) return std::nullopt;
  std::string_view rest = afterBlanks(text.substr(nameEnd + 1));
  if (rest.empty()) return std::nullopt;
  ProcStat stat;
  stat.state = rest.front();
  for (int skipped = 0; skipped < kStartTimeAfterState; ++skipped) {
    const std::size_t blank = rest.find(' ');
    if (blank == std::string_view::npos) return std::nullopt;
    rest.remove_prefix(blank + 1);
  }
  const auto ticks = number(rest);
  if (!ticks) return std::nullopt;
  stat.startTicks = *ticks;
  return stat;
}

std::optional<std::uint64_t> footprintOfStatus(std::string_view text) {
  auto resident = kilobytes(text, "RssAnon");
  if (!resident) resident = kilobytes(text, "VmRSS");
  if (!resident) return std::nullopt;
  const std::uint64_t others = kilobytes(text, "VmSwap").value_or(0) + kilobytes(text, "VmPTE").value_or(0);
  return (*resident + others) * 1024;
}

std::optional<ProcIO> parseProcessIO(std::string_view text) {
  const auto read = field(text, "read_bytes");
  const auto written = field(text, "write_bytes");
  const auto bytesRead = read ? number(*read) : std::nullopt;
  const auto bytesWritten = written ? number(*written) : std::nullopt;
  if (!bytesRead || !bytesWritten) return std::nullopt;
  return ProcIO{*bytesRead, *bytesWritten};
}

std::optional<bool> statusBlocksSignal(std::string_view text, int signal) {
  const auto value = field(text, "SigBlk");
  const auto mask = value ? number(*value, 16) : std::nullopt;
  if (!mask) return std::nullopt;
  return ((*mask >> (signal - 1)) & 1) != 0;
}

char stateOfStatus(std::string_view text) {
  const auto value = field(text, "State");
  return value && !value->empty() ? value->front() : '?';
}

std::optional<std::uint64_t> pausesOfStatus(std::string_view text) {
  const auto value = field(text, "voluntary_ctxt_switches");
  return value ? number(*value) : std::nullopt;
}

int openThreadFile(std::uint32_t thread, const char* name, int folder) {
  char path[64];
  std::snprintf(path, sizeof path, "%s%u/%s", folder < 0 ? "/proc/self/task/" : "", thread, name);
  return openat(folder, path, O_RDONLY | O_CLOEXEC);
}

int openThreadFolder() {
  return open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

std::string_view readThreadFile(std::uint32_t thread, const char* name, std::span<char> buffer) {
  const int file = openThreadFile(thread, name);
  if (file < 0) return {};
  const ssize_t size = pread(file, buffer.data(), buffer.size(), 0);
  close(file);
  return size > 0 ? std::string_view(buffer.data(), static_cast<std::size_t>(size)) : std::string_view{};
}

}  // namespace qbv::linux_backend
