// A program at a fixed address, which gives "malloc" an address of its own, and is seen all the same.
#include <gtest/gtest.h>

#include <cstdlib>

#include "vitalscope/platform/platform.h"

namespace qbv {
namespace {

std::size_t told = 0;
void count(std::uint32_t type, std::uintptr_t, std::uintptr_t bytes, std::uintptr_t, std::uintptr_t,
           std::uint32_t) {
  if (type == (MALLOC_LOG_ALLOCATE | MALLOC_LOG_HAS_ZONE) && bytes == 12345) ++told;
}

TEST(FixedAddressHeap, IsSeenThoughItsNamesMeanAnAddressOfTheProgram) {
  // As a constant in code: for that the linker puts a jump of the program's own in the function's place.
  void* (*volatile allocate)(std::size_t) = std::malloc;
  Allocator& allocator = platform().allocator;
  EXPECT_TRUE(allocator.mallocLoggerSeesHeap()) << "without a logger";
  EXPECT_EQ(malloc_logger, nullptr);
  ASSERT_TRUE(allocator.installMallocLogger(count));
  EXPECT_TRUE(allocator.mallocLoggerSeesHeap());
  EXPECT_EQ(malloc_logger, &count) << "it is back in its place";
  std::free(allocate(12345));
  EXPECT_EQ(told, 1U);
  malloc_logger = nullptr;
}

}  // namespace
}  // namespace qbv
