#include "vitalscope/platform/hot_path.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "vitalscope/platform/linux/pages.h"

namespace qbv {

static_assert(sizeof(TimeOfDay) == sizeof(timeval) && sizeof(timeval::tv_sec) == 8 &&
              offsetof(timeval, tv_usec) == offsetof(TimeOfDay, microseconds));

TimeOfDayFunction* timeOfDayFunction() noexcept {
  return reinterpret_cast<TimeOfDayFunction*>(&gettimeofday);
}

ThreadKey::ThreadKey(void (*destroy)(void*)) noexcept : made_(pthread_key_create(&key_, destroy) == 0) {}

bool ThreadKey::set(void* value) const noexcept {
  return made_ && pthread_setspecific(key_, value) == 0;
}

bool isMainThread() noexcept {
  return syscall(SYS_gettid) == getpid();
}

AddressSpan stackOfThread() noexcept {
  pthread_attr_t attributes;
  void* low = nullptr;
  std::size_t size = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return {};
  const bool known = pthread_attr_getstack(&attributes, &low, &size) == 0;
  pthread_attr_destroy(&attributes);
  const auto start = reinterpret_cast<std::uintptr_t>(low);
  return known ? AddressSpan{start, start + size} : AddressSpan{};
}

void* reservePages(std::size_t bytes) noexcept {
  void* const pages = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

bool commitPages(void* at, std::size_t bytes) noexcept {
  const auto wanted = reinterpret_cast<std::uintptr_t>(at);
  const std::uintptr_t start = linux_backend::startOfPage(wanted);
  return mprotect(reinterpret_cast<void*>(start), wanted + bytes - start, PROT_READ | PROT_WRITE) == 0;
}

void releasePages(void* at, std::size_t bytes) noexcept {
  munmap(at, bytes);
}

}  // namespace qbv
