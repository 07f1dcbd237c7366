// Copies another process's memory while it stands still.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "tools/leaks/snapshot.h"

namespace leaks {

std::vector<Mapping> parseMappings(const std::string& maps);
std::vector<Mapping> mappingsOf(pid_t process);
// Path of the C library the process has loaded; empty when it has none that is known by its name.
std::string libraryPath(const std::vector<Mapping>& mappings);
// File name of a library that replaces the C library's allocator; empty when none is loaded.
std::string foreignAllocator(const std::vector<Mapping>& mappings);
// The stretches of the library's variables.
std::vector<Range> libraryData(const std::vector<Mapping>& mappings, const std::string& path);

// Whether the mapping is left out for its size alone: looking up a page costs about 3 ns, and other run-time
// systems reserve terabytes.
bool isTooLarge(const Mapping& mapping);

// Whether all went well; a part that cannot be read is left as it was.
bool readMemory(pid_t process, Address address, void* to, std::size_t size);
// Version of the C library from its own text in memory, "2.36"; empty when there is none.
std::string libraryVersion(pid_t process, const std::vector<Mapping>& mappings, const std::string& path);

// One reader keeps one copy. Its memory is made ready before the process is stopped, so that the stop is
// short.
class ProcessReader {
 public:
  // Of a process whose first thread has ended any other one's id.
  explicit ProcessReader(pid_t process) : process_(process) {}
  ~ProcessReader();
  ProcessReader(const ProcessReader&) = delete;
  ProcessReader& operator=(const ProcessReader&) = delete;

  // Call while the process runs. Empty on success, else a sentence that says why it cannot be copied.
  std::string prepare();
  // Call while the process stands still, with its threads. False when it has outgrown what was prepared. The
  // snapshot's pieces are valid until the next call and the reader's end.
  bool copy(std::vector<Thread> threads, Snapshot& snapshot);

 private:
  struct Wanted {
    std::vector<Range> runs;
    std::size_t bytes = 0;
  };
  Wanted wantedPages(const std::vector<Mapping>& mappings) const;
  bool reserve(std::size_t bytes);
  void fill(const Wanted& wanted, std::vector<Piece>& pieces) const;

  pid_t process_;
  std::byte* buffer_ = nullptr;
  std::size_t capacity_ = 0;
};

// Registers of a thread that its tracer, the calling thread, has stopped. Empty registers when it has gone.
Thread readThread(pid_t thread);

}  // namespace leaks
