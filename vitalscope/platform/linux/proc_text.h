// The kernel's text files on the own process: reading and picking them apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace qbv::linux_backend {

// What /proc/…/stat says of a process or a thread.
struct ProcStat {
  char state = '?';              // R running or runnable, S, D, Z, …
  std::uint64_t startTicks = 0;  // since boot, in 1/sysconf(_SC_CLK_TCK) s
};
std::optional<ProcStat> parseStat(std::string_view text);

// RssAnon + VmSwap + VmPTE of a status text in bytes; VmRSS stands in for RssAnon where a kernel lacks it.
std::optional<std::uint64_t> footprintOfStatus(std::string_view text);

// The "read_bytes" and "write_bytes" lines of a process's account of its input and output: what the storage
// has read and written for it. Nothing when one is missing.
struct ProcIO {
  std::uint64_t bytesRead = 0;
  std::uint64_t bytesWritten = 0;
};
std::optional<ProcIO> parseProcessIO(std::string_view text);

// Whether the "SigBlk" mask of a status text has a signal; nothing when the text lacks it.
std::optional<bool> statusBlocksSignal(std::string_view text, int signal);

// The letter of a status text's "State" line; '?' when it lacks one.
char stateOfStatus(std::string_view text);

// How often a thread has begun to wait, as a status text has it; nothing when it lacks that line.
std::optional<std::uint64_t> pausesOfStatus(std::string_view text);

// Reads /proc/self/task/THREAD/NAME into the buffer; empty when the thread is gone or the file may not be
// read. Any thread, nothing from the heap.
std::string_view readThreadFile(std::uint32_t thread, const char* name, std::span<char> buffer);

// Opens that file, close-on-exec; -1 on failure, with errno. folder: what openThreadFolder answered, which
// spares the way to it; -1 for none.
int openThreadFile(std::uint32_t thread, const char* name, int folder = -1);

// Opens /proc/self/task, close-on-exec; -1 on failure.
int openThreadFolder();

}  // namespace qbv::linux_backend
