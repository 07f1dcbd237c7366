// Memory taken from the kernel in whole pages, so that the process heap is left alone.
#pragma once

#include <sys/auxv.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>

namespace qbv::linux_backend {

// The start of the page that holds the address; arm64 systems have pages of 4, 16 or 64 KiB. Any thread.
inline std::uintptr_t startOfPage(std::uintptr_t address) {
  return address & ~(static_cast<std::uintptr_t>(getauxval(AT_PAGESZ)) - 1);
}

// Fresh zeroed pages, committed as they are touched; null when the kernel refuses. Any thread.
inline void* takePages(std::size_t size) {
  void* const pages =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

// A growing array of plain values in pages of its own. One thread at a time. Growing moves the values; a
// false result leaves everything as it was.
template <typename T>
class PageVector {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  PageVector() = default;
  PageVector(const PageVector&) = delete;
  PageVector& operator=(const PageVector&) = delete;
  ~PageVector() {
    if (data_ != nullptr) munmap(data_, capacity_ * sizeof(T));
  }

  std::size_t size() const { return size_; }
  T* begin() { return data_; }
  T* end() { return data_ + size_; }
  const T* begin() const { return data_; }
  const T* end() const { return data_ + size_; }
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  std::span<const T> span() const { return {data_, size_}; }

  [[nodiscard]] bool push(const T& value) {
    if (size_ == capacity_ && !reserve(std::max<std::size_t>(capacity_ * 2, 65536 / sizeof(T)))) return false;
    data_[size_++] = value;
    return true;
  }

  // What was never in use before is zero.
  [[nodiscard]] bool resize(std::size_t size) {
    if (size > capacity_ && !reserve(size)) return false;
    size_ = size;
    return true;
  }

 private:
  bool reserve(std::size_t capacity) {
    if (capacity > static_cast<std::size_t>(-1) / sizeof(T) / 2) return false;
    void* grown = nullptr;
    if (data_ == nullptr) {
      grown = takePages(capacity * sizeof(T));
#if defined(__SANITIZE_THREAD__)
      // That sanitizer does not see mremap, and takes the place for another thread's.
    } else if ((grown = takePages(capacity * sizeof(T))) != nullptr) {
      std::memcpy(grown, data_, size_ * sizeof(T));
      munmap(data_, capacity_ * sizeof(T));
#else
    } else {
      grown = mremap(data_, capacity_ * sizeof(T), capacity * sizeof(T), MREMAP_MAYMOVE);
      if (grown == MAP_FAILED) grown = nullptr;
#endif
    }
    if (grown == nullptr) return false;
    data_ = static_cast<T*>(grown);
    capacity_ = capacity;
    return true;
  }

  T* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

// Small pieces that are never given back. One thread at a time.
class PageArena {
 public:
  // Zeroed, aligned to 16; null when the kernel refuses.
  void* take(std::size_t size) {
    size = (size + 15) & ~std::size_t{15};
    if (size > left_) {
      const std::size_t chunk = std::max<std::size_t>(size, 65536);
      next_ = static_cast<char*>(takePages(chunk));
      left_ = next_ != nullptr ? chunk : 0;
      if (next_ == nullptr) return nullptr;
    }
    left_ -= size;
    return std::exchange(next_, next_ + size);
  }

 private:
  char* next_ = nullptr;
  std::size_t left_ = 0;
};

}  // namespace qbv::linux_backend
