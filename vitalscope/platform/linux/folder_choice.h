// Letting the user choose a folder: by the desktop's portal, else by a dialog program.
#pragma once

#include <optional>
#include <string>

#include "vitalscope/platform/processes.h"

namespace qbv::linux_backend {

struct FolderOutcome {
  std::optional<std::string> url = {};  // nothing: cancelled, or nobody was asked
  std::string obstacle = {};            // why nobody was asked; "" when somebody was
};

// Waits until the user is done: on a worker thread.
FolderOutcome askForFolder(const FolderRequest& request);

// The two ways; both wait. Nothing when this way is not there and nobody was asked.
// Over the session bus ($DBUS_SESSION_BUS_ADDRESS, else the usual one): org.freedesktop.portal.FileChooser,
// from the version on that can choose folders.
std::optional<FolderOutcome> askPortal(const FolderRequest& request);
// zenity or kdialog, the first that is on the PATH; on a KDE desktop the other way round.
std::optional<FolderOutcome> askDialogProgram(const FolderRequest& request);

// "file://" and the path, with every byte that a URL's path cannot hold as %XX.
std::string fileURL(const std::string& path);

}  // namespace qbv::linux_backend
