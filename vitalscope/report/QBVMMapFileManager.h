// Appends text to files through a shared mapping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "vitalscope/platform/export.h"

// No state. Any thread, not in signal handlers; two writers of one path at once overwrite each other.
class QBV_EXPORT QBVMMapFileManager {
 public:
  QBVMMapFileManager() = delete;

  // Appends the text, up to its first NUL byte, to the file; a new file is made for the user alone (0600).
  // False when an argument is missing, the file cannot be opened, measured, mapped or grown: then nothing was
  // written.
  static bool writeContent(const std::optional<std::string>& text, const std::optional<std::string>& path);

  // The work of writeContent. 0; -1 for a null argument; 1 when the file cannot be opened or measured; the
  // error number when it cannot be mapped or grown (mapping fails, too, when text and file are both empty).
  static std::int32_t ProcessFile(const char* path, const char* text);

  // Maps `size` bytes of the file, shared and writable, extends the file to that size and syncs it. 0 and the
  // mapping, which the caller unmaps; or an error number and null, with no mapping left behind.
  static std::int32_t MapFile(int descriptor, void** mapping, std::uint64_t size);

  // Bytes before the terminator; 0 for null.
  static std::size_t handle_strlen(const char* text);
  // Copies `count` bytes forward, one at a time.
  static void handle_memcyp(void* destination, const void* source, std::size_t count);
};
