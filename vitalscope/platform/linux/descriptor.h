// File descriptors: ownership, and system calls that a signal may interrupt.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace qbv::linux_backend {

// Repeats a system call that answers -1 on failure until no signal interrupts it.
template <typename Call>
auto retried(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

// Closes its descriptor; -1 is none.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) noexcept : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const noexcept { return number_; }
  explicit operator bool() const noexcept { return number_ >= 0; }
  int release() noexcept { return std::exchange(number_, -1); }
  // False when what was written could not be kept. The descriptor is gone in any case, also after EINTR.
  bool reset(int number = -1) noexcept {
    const int old = std::exchange(number_, number);
    return old < 0 || ::close(old) == 0 || errno == EINTR;
  }

 private:
  int number_;
};

// The same file under a high number, closed on exec: out of the way of programs that count on low numbers,
// and still good for select(). Unchanged when there is no room.
inline Descriptor outOfTheWay(Descriptor descriptor) {
  rlimit limit{};
  if (!descriptor || ::getrlimit(RLIMIT_NOFILE, &limit) != 0) return descriptor;
  const int end = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, FD_SETSIZE));
  Descriptor moved(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, std::max(end - 64, 0)));
  return moved ? std::move(moved) : std::move(descriptor);
}

// All bytes, or false with errno.
inline bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = retried([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace qbv::linux_backend
