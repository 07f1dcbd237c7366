// Other programs, started on the monitor's behalf.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "vitalscope/platform/export.h"

namespace qbv {

// A panel in which the user chooses one folder that exists.
struct FolderRequest {
  std::string prompt;       // title of the button that confirms
  std::string startFolder;  // where it begins; elsewhere when there is no such folder
};
// Gets the chosen folder as the text of a URL, "file:///home/ada/some%20folder", or nothing.
using FolderAnswer = std::function<void(const std::optional<std::string>& url)>;

// Any thread, not in signal handlers. Children inherit stdin and stderr and no other descriptor, an
// environment without this library's preload, and a PATH that begins with the folder of the companion tools.
// Their signal mask and handlers are the defaults.
class QBV_EXPORT Processes {
 public:
  virtual ~Processes() = default;
  // Runs "/bin/bash" "-c" commandLine and waits: not on the main thread, unless the host asked for it there.
  // The bytes it wrote to standard output until that was closed; "" when it cannot be started. The exit
  // status is not looked at. Leaves no zombie, whatever the host does with SIGCHLD.
  virtual std::string run(const std::string& commandLine) = 0;
  // Opens a file with the user's default application. Returns at once; failure is logged once.
  virtual void openFile(const std::string& path) = 0;
  // Shows the panel and returns at once. `answer` runs on the main queue when the user is done: once, with
  // nothing when the user cancelled or no panel could be shown. That there is no display, or nothing to show
  // a panel with, is logged once.
  virtual void chooseFolder(const FolderRequest& request, FolderAnswer answer) = 0;
};

}  // namespace qbv
