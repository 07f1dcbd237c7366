#include "vitalscope/platform/linux/zone_watch.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>

namespace qbv::linux_backend {

namespace {

// What the local time zone hangs on.
struct ZoneSource {
  std::optional<std::string> variable;
  dev_t device = 0;
  ino_t inode = 0;
  std::int64_t changedSeconds = 0;
  std::int64_t changedNanoseconds = 0;
  bool operator==(const ZoneSource&) const = default;
};

constexpr std::size_t kChunk = 64;         // entries of the environment looked at in one go
constexpr std::size_t kLongestZone = 256;  // bytes of TZ that are told apart
constexpr char kName[] = {'T', 'Z', '='};

template <class Piece>
bool readPieces(Piece* into, const iovec* from, std::size_t count) {
  const iovec local{into, count * sizeof(Piece)};
  return process_vm_readv(getpid(), &local, 1, from, count, 0) == static_cast<ssize_t>(count * sizeof(Piece));
}

// The entry "TZ=…" among at most kChunk entries; null when it is not there.
char* zoneEntry(const std::array<char*, kChunk>& entries, std::size_t count, bool& readable) {
  std::array<iovec, kChunk> from;
  std::array<std::array<char, sizeof kName>, kChunk> names;
  for (std::size_t i = 0; i < count; ++i) from[i] = {entries[i], sizeof kName};
  readable = readPieces(names.data(), from.data(), count);
  if (!readable) return nullptr;
  for (std::size_t i = 0; i < count; ++i)
    if (std::memcmp(names[i].data(), kName, sizeof kName) == 0) return entries[i];
  return nullptr;
}

// The text up to its end or kLongestZone. Read in two pieces, so that the page behind it need not exist.
std::string textAt(char* text) {
  std::array<char, kLongestZone> buffer{};
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::size_t toPageEnd = page - reinterpret_cast<std::uintptr_t>(text) % page;
  const std::size_t first = std::min(buffer.size(), toPageEnd);
  const iovec local{buffer.data(), buffer.size()};
  const iovec from[] = {{text, first}, {text + first, buffer.size() - first}};
  const ssize_t copied = process_vm_readv(getpid(), &local, 1, from, first < buffer.size() ? 2 : 1, 0);
  return copied <= 0 ? ""
                     : std::string(buffer.data(), strnlen(buffer.data(), static_cast<std::size_t>(copied)));
}

// Nothing in `variable` when TZ is not set; false when the environment cannot be read just now.
bool readZoneVariable(std::optional<std::string>& variable) {
  for (char** next = environ; next != nullptr; next += kChunk) {
    std::array<char*, kChunk> entries{};
    std::size_t count = 0;
    // Comes short where readable memory ends, which is behind the null that ends the list.
    const iovec local{entries.data(), sizeof entries};
    const iovec from{next, sizeof entries};
    const ssize_t copied = process_vm_readv(getpid(), &local, 1, &from, 1, 0);
    if (copied < 0) return false;
    const std::size_t have = static_cast<std::size_t>(copied) / sizeof(char*);
    while (count < have && entries[count] != nullptr) ++count;
    bool readable = true;
    if (char* const entry = count == 0 ? nullptr : zoneEntry(entries, count, readable)) {
      variable = textAt(entry + sizeof kName);
      return true;
    }
    if (!readable) return false;
    if (count < kChunk) return true;
  }
  return true;
}

std::optional<ZoneSource> currentSource() {
  ZoneSource source;
  if (!readZoneVariable(source.variable)) return std::nullopt;
  struct stat file {};
  if (!source.variable && stat("/etc/localtime", &file) == 0) {
    source.device = file.st_dev;
    source.inode = file.st_ino;
    source.changedSeconds = file.st_mtim.tv_sec;
    source.changedNanoseconds = file.st_mtim.tv_nsec;
  }
  return source;
}

}  // namespace

void followZoneChanges() {
  static constinit std::mutex mutex;
  static std::optional<ZoneSource>* const known = new std::optional<ZoneSource>;
  // Held by another thread: it is just looking. Held in a forked child: for ever.
  const std::unique_lock lock(mutex, std::try_to_lock);
  if (!lock.owns_lock()) return;
  const auto source = currentSource();
  if (known->has_value() && (!source.has_value() || *known == source)) return;
  *known = source.value_or(ZoneSource{});
  tzset();
}

}  // namespace qbv::linux_backend
