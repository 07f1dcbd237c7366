#include "vitalscope/platform/linux/thread_list.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

#include "vitalscope/platform/linux/proc_text.h"

namespace qbv::linux_backend {

namespace {

// The part of the kernel's directory entry that is read: d_reclen and d_name of struct linux_dirent64.
constexpr std::size_t kLengthOffset = 16;
constexpr std::size_t kNameOffset = 19;

class PortPages {
 public:
  PortPages() = default;
  ~PortPages() {
    if (ports_ != nullptr) munmap(ports_, bytes_);
  }
  PortPages(const PortPages&) = delete;
  PortPages& operator=(const PortPages&) = delete;

  bool add(ThreadPort port) {
    if ((count_ + 1) * sizeof(ThreadPort) > bytes_ && !resize(bytes_ == 0 ? wholePages(1) : bytes_ * 2)) {
      return false;
    }
    ports_[count_++] = port;
    return true;
  }

  // Hands the pages over, cut to what the ports need.
  bool release(ThreadPort** list, std::uint32_t* count) {
    if (count_ != 0 && !resize(wholePages(count_ * sizeof(ThreadPort)))) return false;
    *list = ports_;
    *count = static_cast<std::uint32_t>(count_);
    ports_ = nullptr;
    return true;
  }

 private:
  bool resize(std::size_t bytes) {
    if (bytes == bytes_) return true;
    void* const pages = ports_ == nullptr
                            ? mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                            : mremap(ports_, bytes_, bytes, MREMAP_MAYMOVE);
    if (pages == MAP_FAILED) return false;
    ports_ = static_cast<ThreadPort*>(pages);
    bytes_ = bytes;
    return true;
  }

  ThreadPort* ports_ = nullptr;
  std::size_t bytes_ = 0;
  std::size_t count_ = 0;
};

// 0 for names that are no number ("." and "..").
ThreadPort portOf(const char* name) {
  ThreadPort port = 0;
  for (; *name >= '0' && *name <= '9'; ++name) port = port * 10 + static_cast<ThreadPort>(*name - '0');
  return *name == '\0' ? port : 0;
}

bool addEntries(PortPages& ports, const char* entries, std::size_t size) {
  for (std::size_t at = 0; at + kNameOffset < size;) {
    std::uint16_t length;
    std::memcpy(&length, entries + at + kLengthOffset, sizeof length);
    const ThreadPort port = portOf(entries + at + kNameOffset);
    if (port != 0 && !ports.add(port)) return false;
    at += length;
  }
  return true;
}

bool readDirectory(int directory, PortPages& ports) {
  alignas(8) char entries[4096];
  for (;;) {
    const long size = syscall(SYS_getdents64, directory, entries, sizeof entries);
    if (size <= 0) return size == 0;
    if (!addEntries(ports, entries, static_cast<std::size_t>(size))) return false;
  }
}

}  // namespace

std::size_t wholePages(std::size_t bytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return (bytes + page - 1) / page * page;
}

KernReturn listThreads(ThreadPort** list, std::uint32_t* count) {
  const int directory = openThreadFolder();
  if (directory < 0) return KERN_FAILURE;
  PortPages ports;
  const bool read = readDirectory(directory, ports);
  close(directory);
  return read && ports.release(list, count) ? KERN_SUCCESS : KERN_FAILURE;
}

}  // namespace qbv::linux_backend
