#include "vitalscope/platform/processes.h"

#include <spawn.h>

#include <atomic>
#include <optional>
#include <utility>

#include "vitalscope/platform/linux/allowed_tracer.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/child_process.h"
#include "vitalscope/platform/linux/folder_choice.h"

namespace qbv::linux_backend {
namespace {

// Starts the user's opener in the background and says so when there is none. The shell ends at once, so the
// opener is nobody's child here.
constexpr const char* openerScript =
    "if command -v xdg-open >/dev/null; then xdg-open \"$1\" </dev/null >/dev/null 2>&1 &\n"
    "elif command -v gio >/dev/null; then gio open \"$1\" </dev/null >/dev/null 2>&1 &\n"
    "else echo missing; fi";

class LinuxProcesses final : public Processes {
 public:
  std::string run(const std::string& commandLine) override {
    const AllowedTracer allowed;
    return runBash({"/bin/bash", "-c", commandLine}, 0).value_or("");
  }

  void openFile(const std::string& path) override {
    const auto output = runBash({"/bin/bash", "-c", openerScript, "open", path}, POSIX_SPAWN_SETSID);
    if (output == "" || failureLogged_.exchange(true)) return;
    qbv::platform().log.NSLog("QuibVitalscope: cannot open " + path +
                              ": found no program to open files with");
  }

  void chooseFolder(const FolderRequest& request, FolderAnswer answer) override {
    Dispatch& dispatch = qbv::platform().dispatch;
    // Asking lasts as long as the user thinks.
    dispatch.dispatch_async(dispatch.dispatch_get_global_queue(), [this, request,
                                                                   answer = std::move(answer)] {
      const FolderOutcome outcome = askForFolder(request);
      if (!outcome.obstacle.empty() && !panelMissingLogged_.exchange(true))
        qbv::platform().log.NSLog("QuibVitalscope: cannot let the user choose a folder: " + outcome.obstacle);
      Dispatch& queues = qbv::platform().dispatch;
      queues.dispatch_async(queues.dispatch_get_main_queue(), [=] { answer(outcome.url); });
    });
  }

 private:
  std::atomic<bool> failureLogged_{false};
  std::atomic<bool> panelMissingLogged_{false};
};

}  // namespace

Processes& processes() {
  static auto* const area = new LinuxProcesses;
  return *area;
}

}  // namespace qbv::linux_backend
