// Reading memory of the own process that may not be mapped.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qbv::linux_backend {

// Copies up to size bytes and answers how many: fewer when a page on the way cannot be read, never a fault.
// Any thread, async-signal-safe, no lock, no allocation. Where the direct call is refused (a seccomp filter),
// the bytes go through a pipe of the call's own.
std::size_t safeRead(std::uint64_t address, std::size_t size, void* buffer);

// The two ways, for tests. The first answers -1 when the kernel refuses the call itself.
std::ptrdiff_t readDirectly(std::uint64_t address, std::size_t size, void* buffer);
std::size_t readThroughPipe(std::uint64_t address, std::size_t size, void* buffer);

// safeRead of one word; the form that StackView::elsewhere takes.
bool readWord(std::uint64_t address, std::uint64_t& word);

}  // namespace qbv::linux_backend
