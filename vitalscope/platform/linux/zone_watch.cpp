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
#include <utility>

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

// Up to kChunk entries of the environment from `place` on, as many as lie before the null that ends it. Comes
// short where readable memory ends, which is behind that null. Nothing when it cannot be read just now.
std::optional<std::size_t> readEntries(char** place, std::array<char*, kChunk>& entries) {
  const iovec local{entries.data(), sizeof entries};
  const iovec from{place, sizeof entries};
  const ssize_t copied = process_vm_readv(getpid(), &local, 1, &from, 1, 0);
  if (copied < 0) return std::nullopt;
  const auto end = entries.begin() + copied / static_cast<ssize_t>(sizeof(char*));
  return static_cast<std::size_t>(std::find(entries.begin(), end, nullptr) - entries.begin());
}

// Tells one state of the environment from another by where its entries lie: a variable that gets a new value
// gets a new entry, and the C library never gives an old one back. Costs one system call as a rule, looking
// into the entries costs ten times as much. 0 when the environment cannot be read just now.
std::uint64_t environmentMark() {
  std::uint64_t mark = 14695981039346656037U;
  std::array<char*, kChunk> entries{};
  for (char** place = environ; place != nullptr; place += kChunk) {
    const auto count = readEntries(place, entries);
    if (!count) return 0;
    for (std::size_t i = 0; i < *count; ++i)
      mark = (mark ^ reinterpret_cast<std::uintptr_t>(entries[i])) * 1099511628211U;
    if (*count < kChunk) break;
  }
  return mark;
}

// Nothing in `variable` when TZ is not set; false when the environment cannot be read just now.
bool readZoneVariable(std::optional<std::string>& variable) {
  std::array<char*, kChunk> entries{};
  for (char** place = environ; place != nullptr; place += kChunk) {
    const auto count = readEntries(place, entries);
    bool readable = count.has_value();
    char* const entry = readable && *count != 0 ? zoneEntry(entries, *count, readable) : nullptr;
    if (!readable) return false;
    if (entry != nullptr) {
      variable = textAt(entry + sizeof kName);
      return true;
    }
    if (*count < kChunk) return true;
  }
  return true;
}

void lookAtFile(ZoneSource& source) {
  struct stat file {};
  if (source.variable || stat("/etc/localtime", &file) != 0) return;
  source.device = file.st_dev;
  source.inode = file.st_ino;
  source.changedSeconds = file.st_mtim.tv_sec;
  source.changedNanoseconds = file.st_mtim.tv_nsec;
}

struct Known {
  std::uint64_t environment = 0;
  std::optional<ZoneSource> source;
};

// With Known's lock held. Whether the zone may be another one than before.
bool changed(Known& known) {
  const std::uint64_t environment = environmentMark();
  ZoneSource now;
  if (known.source && environment == known.environment) {
    now.variable = known.source->variable;
  } else if (!readZoneVariable(now.variable)) {
    // What is known stays; only the very first time the C library has to look without our knowing.
    return !std::exchange(known.source, known.source.value_or(ZoneSource{})).has_value();
  }
  lookAtFile(now);
  known.environment = environment;
  return std::exchange(known.source, now) != now;
}

}  // namespace

void followZoneChanges() {
  static constinit std::mutex mutex;
  static Known* const known = new Known;
  // Held by another thread: it is just looking. Held in a forked child: for ever.
  const std::unique_lock lock(mutex, std::try_to_lock);
  if (lock.owns_lock() && changed(*known)) tzset();
}

}  // namespace qbv::linux_backend
