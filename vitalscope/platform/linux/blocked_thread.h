// A thread that waits in the kernel, looked at without disturbing it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace qbv::linux_backend {

// What the kernel says of where a thread stands.
struct SystemCallLine {
  enum class State { running, blocked, unknown };
  State state = State::unknown;
  long number = -1;  // of the system call; -1 when the thread waits elsewhere (a page, a debugger's stop)
  std::array<std::uint64_t, 6> arguments{};  // of the system call
  std::uint64_t stackPointer = 0;
  std::uint64_t programCounter = 0;

  bool operator==(const SystemCallLine&) const = default;
};
// "running", "-1 SP PC" or "NUMBER six arguments SP PC", hexadecimal after the number.
SystemCallLine parseSystemCallLine(std::string_view text);

// Watches one thread. Used by one thread, not in signal handlers; nothing from the heap.
class BlockedThread {
 public:
  // folder: see openThreadFile.
  explicit BlockedThread(std::uint32_t thread, int folder = -1);
  ~BlockedThread();
  BlockedThread(const BlockedThread&) = delete;
  BlockedThread& operator=(const BlockedThread&) = delete;

  // Where it stands now. State::unknown when the kernel does not tell: the thread is gone, or the file is not
  // for us.
  const SystemCallLine& look();

  // The CPU time it had used just before the last look, in nanoseconds.
  std::optional<std::uint64_t> cpuAtLook() const { return cpu_; }

  // Whether it has not run at all since the last look, which said that it is blocked: what was read of its
  // stack between is of one instant.
  bool unmoved();

 private:
  SystemCallLine read() const;

  std::uint32_t thread_;
  int file_;
  SystemCallLine line_;
  std::optional<std::uint64_t> cpu_;
};

}  // namespace qbv::linux_backend
