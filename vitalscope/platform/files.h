// The file system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vitalscope/platform/clock.h"
#include "vitalscope/platform/export.h"

namespace qbv {

// Any thread, not in signal handlers. Paths are bytes as the system has them. Nothing here throws; failure is
// the false, the empty list or the error number named below. New folders are 0700, new files 0600, whatever
// the umask.
class QBV_EXPORT Files {
 public:
  virtual ~Files() = default;

  // Home folder of the user: $HOME if it is an absolute path, else the password database; nothing when
  // neither knows one.
  virtual std::optional<std::string> homeDirectory() = 0;
  virtual bool fileExists(const std::string& path) = 0;
  virtual bool isDirectory(const std::string& path) = 0;  // follows links
  // The folder and all missing parents. True also when it was there.
  virtual bool createDirectory(const std::string& path) = 0;
  // An empty file; one that exists is emptied.
  virtual bool createFile(const std::string& path) = 0;
  // Replaces the file by a new one with this content, in one step: a reader sees the old or the new, and a
  // failed write leaves the old.
  virtual bool writeAtomically(const std::string& path, const std::string& content) = 0;
  virtual std::optional<std::string> read(const std::string& path) = 0;
  // Names in a folder without "." and ".."; empty when it cannot be read. In the system's order.
  virtual std::vector<std::string> contentsOfDirectory(const std::string& path) = 0;
  // A file, or a folder with all below it. Links are removed, not followed.
  virtual bool remove(const std::string& path) = 0;
  // When the file was made; nothing when it cannot be read. Where the file system keeps no such date (linux:
  // network folders, some file systems in user space) it is when the content last changed.
  virtual std::optional<AbsoluteTime> creationDate(const std::string& path) = 0;

  // Descriptors and shared mappings. open: read and write, made when missing, -1 on failure; emptied when
  // `truncate`.
  virtual int open(const std::string& path, bool truncate) = 0;
  virtual std::optional<std::uint64_t> size(int descriptor) = 0;
  // 0 or an error number. What is added reads as zeros and has its disk space reserved: storing into a
  // mapping of it cannot fail later, also on a full disk (linux: posix_fallocate to grow, ftruncate to
  // shrink).
  virtual int setSize(int descriptor, std::uint64_t size) = 0;
  virtual int sync(int descriptor) = 0;  // 0 or an error number
  virtual void close(int descriptor) = 0;
  // Shared, readable and writable, from the file's start. 0 and *mapping, or an error number and null.
  virtual int map(int descriptor, std::uint64_t size, void** mapping) = 0;
  virtual void unmap(void* mapping, std::uint64_t size) = 0;
};

// The path with a leading "~" or "~/" replaced by the home folder; unchanged when there is none. Any thread.
QBV_EXPORT std::string expandingTildeInPath(const std::string& path);

}  // namespace qbv
