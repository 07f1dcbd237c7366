#include "vitalscope/platform/scripted/scripted_processes.h"

#include "vitalscope/platform/platform.h"

namespace qbv {

std::string ScriptedProcesses::run(const std::string& commandLine) {
  std::function<std::optional<std::string>(const std::string&)> callback;
  {
    const std::lock_guard lock(mutex_);
    commandLines_.push_back(commandLine);
    callback = callback_;
  }
  if (callback)
    if (std::optional<std::string> output = callback(commandLine)) return *output;
  const std::lock_guard lock(mutex_);
  for (const auto& [part, output] : answers_)
    if (commandLine.find(part) != std::string::npos) return output;
  return "";
}

void ScriptedProcesses::openFile(const std::string& path) {
  const std::lock_guard lock(mutex_);
  openedFiles_.push_back(path);
}

void ScriptedProcesses::chooseFolder(const FolderRequest& request, FolderAnswer answer) {
  const std::lock_guard lock(mutex_);
  folderRequests_.push_back(request);
  Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(),
                          [url = chosenFolder_, answer = std::move(answer)] { answer(url); });
}

void ScriptedProcesses::setChosenFolder(std::optional<std::string> url) {
  const std::lock_guard lock(mutex_);
  chosenFolder_ = std::move(url);
}

void ScriptedProcesses::answer(const std::string& part, const std::string& output) {
  const std::lock_guard lock(mutex_);
  answers_.emplace_back(part, output);
}

void ScriptedProcesses::setCallback(
    std::function<std::optional<std::string>(const std::string& commandLine)> callback) {
  const std::lock_guard lock(mutex_);
  callback_ = std::move(callback);
}

std::vector<std::string> ScriptedProcesses::commandLines() const {
  const std::lock_guard lock(mutex_);
  return commandLines_;
}

std::vector<std::string> ScriptedProcesses::openedFiles() const {
  const std::lock_guard lock(mutex_);
  return openedFiles_;
}

std::vector<FolderRequest> ScriptedProcesses::folderRequests() const {
  const std::lock_guard lock(mutex_);
  return folderRequests_;
}

}  // namespace qbv
