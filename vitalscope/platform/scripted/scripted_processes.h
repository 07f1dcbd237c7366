// Programs that are not started: what was asked is kept, the answers are the test's.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vitalscope/platform/processes.h"

namespace qbv {

// Any thread.
class ScriptedProcesses final : public Processes {
 public:
  // The callback's answer, else that of the first scripted text which the command line contains, else "".
  std::string run(const std::string& commandLine) override;
  void openFile(const std::string& path) override;
  // Answers with the URL that was scripted last, on the main queue: when the test drains it.
  void chooseFolder(const FolderRequest& request, FolderAnswer answer) override;

  // Command lines that contain `part` write `output`. Earlier answers go first.
  void answer(const std::string& part, const std::string& output);
  // Called on the thread that runs the command, without a lock held; may advance the clock to play that the
  // command takes long. Nothing: look on.
  void setCallback(std::function<std::optional<std::string>(const std::string& commandLine)> callback);

  // What the user chooses from now on; nothing (at first): the user cancels.
  void setChosenFolder(std::optional<std::string> url);

  std::vector<std::string> commandLines() const;
  std::vector<std::string> openedFiles() const;
  std::vector<FolderRequest> folderRequests() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> answers_;
  std::function<std::optional<std::string>(const std::string&)> callback_;
  std::vector<std::string> commandLines_;
  std::vector<std::string> openedFiles_;
  std::optional<std::string> chosenFolder_;
  std::vector<FolderRequest> folderRequests_;
};

}  // namespace qbv
