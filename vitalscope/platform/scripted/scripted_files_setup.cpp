#include <algorithm>
#include <filesystem>
#include <utility>

#include "vitalscope/platform/scripted/scripted_files.h"

namespace qbv {

std::string ScriptedFiles::normalised(const std::string& path) {
  std::string text = std::filesystem::path(path).lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

int ScriptedFiles::begin(FileCall call, const std::string& path) {
  operations_.push_back({call, path, false});
  for (Failure& failure : failures_) {
    if (failure.call != call || failure.spent || path.find(failure.part) == std::string::npos) continue;
    if (failure.skip > 0) {
      --failure.skip;
      continue;
    }
    if (failure.times > 0 && --failure.times == 0) failure.spent = true;
    return failure.error;
  }
  return 0;
}

bool ScriptedFiles::finish(bool succeeded) {
  operations_.back().succeeded = succeeded;
  return succeeded;
}

std::string ScriptedFiles::pathOf(int descriptor) const {
  const auto found = descriptors_.find(descriptor);
  return found == descriptors_.end() ? "" : found->second;
}

void ScriptedFiles::noteCreated(const std::string& path) {
  dates_[normalised(path)] = clock_.CFAbsoluteTimeGetCurrent();
}

void ScriptedFiles::forget(const std::string& path) {
  const std::string gone = normalised(path);
  std::erase_if(dates_, [&gone](const auto& entry) {
    return entry.first == gone || entry.first.starts_with(gone + "/");
  });
}

void ScriptedFiles::setHomeDirectory(std::optional<std::string> path) {
  const std::lock_guard lock(mutex_);
  homeAnswer_ = std::move(path);
}

void ScriptedFiles::setCreationDate(const std::string& path, std::optional<AbsoluteTime> date) {
  const std::lock_guard lock(mutex_);
  dates_[normalised(path)] = date;
}

void ScriptedFiles::fail(FileCall call, const std::string& part, int error, unsigned skip, unsigned times) {
  const std::lock_guard lock(mutex_);
  failures_.push_back({call, part, error, skip, times, false});
}

void ScriptedFiles::clearFailures() {
  const std::lock_guard lock(mutex_);
  failures_.clear();
}

std::vector<FileOperation> ScriptedFiles::operations() const {
  const std::lock_guard lock(mutex_);
  return operations_;
}

std::size_t ScriptedFiles::operationCount(FileCall call) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::ranges::count(operations_, call, &FileOperation::call));
}

void ScriptedFiles::clearOperations() {
  const std::lock_guard lock(mutex_);
  operations_.clear();
}

std::size_t ScriptedFiles::openDescriptors() const {
  const std::lock_guard lock(mutex_);
  return descriptors_.size();
}

std::size_t ScriptedFiles::mappings() const {
  const std::lock_guard lock(mutex_);
  return mappings_.size();
}

}  // namespace qbv
