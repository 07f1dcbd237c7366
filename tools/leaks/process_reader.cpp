#include "tools/leaks/process_reader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <thread>

namespace leaks {

namespace {

// The kernel's marks in the list of a process's pages.
constexpr std::uint64_t kPresent = std::uint64_t{1} << 63;
constexpr std::uint64_t kSwapped = std::uint64_t{1} << 62;
constexpr std::uint64_t kOfFile = std::uint64_t{1} << 61;

constexpr Address kLargestMapping = Address{16} << 30;

const std::size_t kPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

bool isWanted(const Mapping& mapping) {
  const std::string& name = mapping.name;
  if (!mapping.readable || mapping.range.size() > kLargestMapping) return false;
  if (mapping.shared && !mapping.writable) return false;
  if (name.starts_with("[v")) return false;  // the kernel's own
  return !name.starts_with("/dev/") || name.starts_with("/dev/zero") || name.starts_with("/dev/shm/");
}

std::size_t availableMemory() {
  std::ifstream facts("/proc/meminfo");
  for (std::string key, rest; facts >> key && std::getline(facts, rest);)
    if (key == "MemAvailable:")
      return static_cast<std::size_t>(std::strtoull(rest.c_str(), nullptr, 10)) * 1024;
  return 0;
}

constexpr std::size_t kSlice = std::size_t{1} << 20;
constexpr unsigned kMostThreads = 4;

struct Slice {
  Address begin = 0;
  std::byte* to = nullptr;
  std::size_t size = 0;
  std::vector<Piece> pieces;  // what could be read
};

void readSlice(pid_t process, Slice& slice) {
  for (std::size_t done = 0; done < slice.size;) {
    const iovec local{slice.to + done, slice.size - done};
    const iovec remote{reinterpret_cast<void*>(slice.begin + done), slice.size - done};
    const ssize_t got = process_vm_readv(process, &local, 1, &remote, 1, 0);
    const std::size_t read = got > 0 ? static_cast<std::size_t>(got) : 0;
    if (read > 0) slice.pieces.push_back({slice.begin + done, slice.to + done, read});
    // A page that cannot be read is left out.
    done += read < slice.size - done ? read / kPage * kPage + kPage : read;
  }
}

}  // namespace

bool isTooLarge(const Mapping& mapping) {
  return mapping.readable && mapping.writable && mapping.range.size() > kLargestMapping;
}

bool readMemory(pid_t process, Address address, void* to, std::size_t size) {
  const iovec local{to, size};
  const iovec remote{reinterpret_cast<void*>(address), size};
  return process_vm_readv(process, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

ProcessReader::~ProcessReader() {
  if (buffer_ != nullptr) munmap(buffer_, capacity_);
}

ProcessReader::Wanted ProcessReader::wantedPages(const std::vector<Mapping>& mappings) const {
  Wanted wanted;
  const std::string path = "/proc/" + std::to_string(process_) + "/pagemap";
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return wanted;
  std::vector<std::uint64_t> marks(65536);
  for (const Mapping& mapping : mappings) {
    if (!isWanted(mapping)) continue;
    bool follows = false;
    for (Address at = mapping.range.begin; at < mapping.range.end;) {
      const auto pages =
          static_cast<std::size_t>(std::min<Address>(marks.size(), (mapping.range.end - at) / kPage));
      const ssize_t got = pread(file, marks.data(), pages * 8, static_cast<off_t>(at / kPage * 8));
      if (got < 8) break;
      for (std::size_t i = 0; i < static_cast<std::size_t>(got) / 8; ++i, at += kPage) {
        // A private mapping's page that still is the file's was never written to.
        const bool isDirty = mapping.shared || (marks[i] & kOfFile) == 0;
        const bool take = (marks[i] & (kPresent | kSwapped)) != 0 && isDirty;
        if (take && follows) wanted.runs.back().end += kPage;
        if (take && !follows) wanted.runs.push_back({at, at + kPage});
        if (take) wanted.bytes += kPage;
        follows = take;
      }
    }
  }
  close(file);
  return wanted;
}

bool ProcessReader::reserve(std::size_t bytes) {
  if (bytes <= capacity_) return true;
  if (buffer_ != nullptr) munmap(buffer_, capacity_);
  buffer_ = nullptr;
  capacity_ = 0;
  void* const memory =
      mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return false;
  madvise(memory, bytes, MADV_HUGEPAGE);
  buffer_ = static_cast<std::byte*>(memory);
  capacity_ = bytes;
  for (std::size_t at = 0; at < bytes; at += kPage) buffer_[at] = std::byte{0};
  return true;
}

std::string ProcessReader::prepare() {
  const Wanted wanted = wantedPages(mappingsOf(process_));
  if (wanted.bytes == 0) return "cannot list the pages of process " + std::to_string(process_);
  const std::size_t needed = wanted.bytes + wanted.bytes / 8 + (std::size_t{4} << 20);
  if (needed > capacity_ && needed > availableMemory() / 2)
    return "not enough memory to copy " + std::to_string(wanted.bytes >> 20) + " MB";
  return reserve(needed) ? "" : "not enough memory";
}

void ProcessReader::fill(const Wanted& wanted, std::vector<Piece>& pieces) const {
  std::vector<Slice> slices;
  std::size_t used = 0;
  for (const Range& run : wanted.runs)
    for (Address at = run.begin; at < run.end;) {
      const auto size = static_cast<std::size_t>(std::min<Address>(run.end - at, kSlice));
      slices.push_back({at, buffer_ + used, size, {}});
      used += size;
      at += size;
    }
  // Several processors copy several times as fast, and the process stands still meanwhile.
  std::atomic<std::size_t> next{0};
  const auto work = [&] {
    for (std::size_t i = next++; i < slices.size(); i = next++) readSlice(process_, slices[i]);
  };
  std::vector<std::thread> helpers;
  const unsigned most = std::min(kMostThreads, std::max(1u, std::thread::hardware_concurrency()));
  for (std::size_t i = 1; i < most && i < slices.size() / 4; ++i) helpers.emplace_back(work);
  work();
  for (std::thread& helper : helpers) helper.join();
  for (const Slice& slice : slices) pieces.insert(pieces.end(), slice.pieces.begin(), slice.pieces.end());
}

bool ProcessReader::copy(std::vector<Thread> threads, Snapshot& snapshot) {
  snapshot = {};
  snapshot.pageSize = kPage;
  snapshot.threads = std::move(threads);
  snapshot.mappings = mappingsOf(process_);
  snapshot.libraryData = libraryData(snapshot.mappings, libraryPath(snapshot.mappings));
  const Wanted wanted = wantedPages(snapshot.mappings);
  if (wanted.bytes == 0 || wanted.bytes > capacity_) return false;
  fill(wanted, snapshot.pieces);
  return true;
}

}  // namespace leaks
