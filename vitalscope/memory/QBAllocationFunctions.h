// The allocation monitor's plain functions: the logger that the allocator calls, and the record of stacks.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#include "vitalscope/platform/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// A single allocation of at least so many bytes is reported: 51,201 KB.
enum { qb_over_memory_bytes = 50 * 1048576 + 1024 };

// A malloc_logger (see allocator.h for the events). While the monitor is enabled it counts live blocks and
// reports over-size allocations, on the thread that makes them and before they return; it ignores a
// reallocation that stayed in place. Any thread; takes no lock and no memory unless it reports, and leaves
// errno alone. What it would only count the allocator may count in its place, with the same result.
QBV_EXPORT void quib_malloc_stack_logger(uint32_t type, uintptr_t zone, uintptr_t argument2,
                                         uintptr_t argument3, uintptr_t result, uint32_t framesToSkip);
// Counts one allocation of `size` bytes, and reports it if it is over-size. A thread that is about to report
// counts whatever it allocates meanwhile but reports nothing of it. `unused` is ignored.
QBV_EXPORT void handle_alloc(uint32_t type, uint64_t size, uint64_t unused);
// Counts one free.
QBV_EXPORT void handle_free(uint64_t address);

// Notes that the block at `address` came from the calling stack, less the skipCount innermost frames; once
// per address, and only while the monitor's tables exist. Any thread, also in a malloc_logger.
QBV_EXPORT void recordMallocStack(uint64_t address, uint32_t size, uint64_t skipCount);
// Writes return addresses of the calling thread into `frames` (room for maxDepth), innermost first: of the n
// captured ones (at most 64 and maxDepth) those from skipCount to the third from the outermost, if keepFrames
// or with a skipHash of 0, and then the second from the outermost. Answers how many were written and puts the
// checksum of hashSeed and the low halves of all of them but the last into stackId. Answers 0 without a
// stackId when fewer than skipCount + 4 were captured (then nothing is written) or skipHash is not 0. Any
// thread, also in a malloc_logger; takes no lock of this library and no heap memory.
QBV_EXPORT uint64_t recordBacktrace(bool keepFrames, uint32_t hashSeed, uint64_t skipHash, uint64_t skipCount,
                                    uint64_t* frames, uint64_t* stackId, uint64_t maxDepth);

// Notes the present second as the time of the last over-size request. Any thread.
QBV_EXPORT void memory_request_frequency(void);
// Notes the size if it is the largest so far. Any thread.
QBV_EXPORT void record_top_size_memory(int64_t size);
// False: addresses are not told apart by image.
QBV_EXPORT bool isInAppAddress(uint64_t address);

#ifdef __cplusplus
}
#endif
