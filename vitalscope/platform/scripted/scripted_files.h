// Real files below a temporary home folder, with creation dates and failures of the test's choice.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vitalscope/platform/files.h"
#include "vitalscope/platform/scripted/scripted_clock.h"

namespace qbv {

enum class FileCall {
  createDirectory,
  createFile,
  writeAtomically,
  read,
  contentsOfDirectory,
  remove,
  creationDate,
  open,
  size,
  setSize,
  sync,
  close,
  map,
  unmap,  // has no path
};

struct FileOperation {
  FileCall call;
  std::string path;  // for descriptors: the path that was opened
  bool succeeded = true;
};

// Any thread. Its home folder is made with the object, is private to it and goes with it. Paths outside of it
// are real too: nothing is shut off.
class ScriptedFiles final : public Files {
 public:
  explicit ScriptedFiles(ScriptedClock& clock);
  ~ScriptedFiles() override;
  ScriptedFiles(const ScriptedFiles&) = delete;
  ScriptedFiles& operator=(const ScriptedFiles&) = delete;

  std::optional<std::string> homeDirectory() override;
  bool fileExists(const std::string& path) override;
  bool isDirectory(const std::string& path) override;
  bool createDirectory(const std::string& path) override;
  bool createFile(const std::string& path) override;
  bool writeAtomically(const std::string& path, const std::string& content) override;
  std::optional<std::string> read(const std::string& path) override;
  // In ascending order of the names.
  std::vector<std::string> contentsOfDirectory(const std::string& path) override;
  bool remove(const std::string& path) override;
  // The scripted time at which this object made the file, unless set; the scripted clock's start for a file
  // that others made. An atomic write makes a new file.
  std::optional<AbsoluteTime> creationDate(const std::string& path) override;
  int open(const std::string& path, bool truncate) override;
  std::optional<std::uint64_t> size(int descriptor) override;
  int setSize(int descriptor, std::uint64_t size) override;
  int sync(int descriptor) override;
  void close(int descriptor) override;
  int map(int descriptor, std::uint64_t size, void** mapping) override;
  void unmap(void* mapping, std::uint64_t size) override;

  // The temporary folder, without a slash at the end.
  const std::string& home() const noexcept { return home_; }
  // What homeDirectory answers; nothing: no home is known.
  void setHomeDirectory(std::optional<std::string> path);
  // Nothing: the date cannot be read. Holds until the path is removed or replaced.
  void setCreationDate(const std::string& path, std::optional<AbsoluteTime> date);

  // From now on the call fails for paths that contain `part` ("": all), after `skip` further good calls and
  // for `times` calls (0: for ever). `error` is what calls with an error number answer. A failing call has no
  // other effect.
  void fail(FileCall call, const std::string& part = "", int error = 5 /* EIO */, unsigned skip = 0,
            unsigned times = 0);
  void clearFailures();

  // What was asked, oldest first.
  std::vector<FileOperation> operations() const;
  std::size_t operationCount(FileCall call) const;
  void clearOperations();
  // Descriptors that are open and mappings that are mapped.
  std::size_t openDescriptors() const;
  std::size_t mappings() const;

 private:
  struct Failure {
    FileCall call;
    std::string part;
    int error;
    unsigned skip;
    unsigned times;
    bool spent;
  };
  // Notes the operation, as failed until finish() says otherwise. The error number of a scripted failure, 0
  // when the call may go on.
  int begin(FileCall call, const std::string& path);
  bool finish(bool succeeded);
  int openFile(const std::string& path, bool truncate);
  std::string pathOf(int descriptor) const;
  void noteCreated(const std::string& path);
  void forget(const std::string& path);
  static std::string normalised(const std::string& path);

  ScriptedClock& clock_;
  std::string home_;
  mutable std::mutex mutex_;
  std::optional<std::string> homeAnswer_;
  std::map<std::string, std::optional<AbsoluteTime>> dates_;
  std::vector<Failure> failures_;
  std::vector<FileOperation> operations_;
  std::map<int, std::string> descriptors_;
  std::map<void*, std::uint64_t> mappings_;
};

}  // namespace qbv
