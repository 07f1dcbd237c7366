#include "vitalscope/platform/linux/folder_choice.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "vitalscope/platform/linux/child_process.h"

namespace qbv::linux_backend {
namespace {

// Writes "missing" where there is no program; otherwise "chosen" and the path, or nothing.
constexpr const char* dialogScript =
    "programs='zenity kdialog'\n"
    "case $XDG_CURRENT_DESKTOP in *KDE*) programs='kdialog zenity' ;; esac\n"
    "for program in $programs; do\n"
    "  command -v $program >/dev/null || continue\n"
    "  case $program in\n"
    "    zenity) path=$(zenity --file-selection --directory --title=\"$1\" --filename=\"$2/\" 2>/dev/null) "
    ";;\n"
    "    kdialog) path=$(kdialog --title \"$1\" --getexistingdirectory \"$2\" 2>/dev/null) ;;\n"
    "  esac && printf 'chosen%s' \"$path\"\n"
    "  exit\n"
    "done\n"
    "printf missing";

bool isSet(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

}  // namespace

std::string fileURL(const std::string& path) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~!$&'()*+,;=:@/";
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string url = "file://";
  for (const char letter : path) {
    if (kPlain.find(letter) != std::string_view::npos) {
      url += letter;
      continue;
    }
    const auto byte = static_cast<unsigned char>(letter);
    url += {'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
  }
  return url;
}

std::optional<FolderOutcome> askDialogProgram(const FolderRequest& request) {
  constexpr std::string_view kChosen = "chosen";
  const auto output =
      runBash({"/bin/bash", "-c", dialogScript, "choose", request.prompt, request.startFolder}, 0);
  if (!output || *output == "missing") return std::nullopt;
  if (!output->starts_with(kChosen) || output->size() == kChosen.size()) return FolderOutcome{};
  return FolderOutcome{fileURL(output->substr(kChosen.size()))};
}

FolderOutcome askForFolder(const FolderRequest& request) {
  if (!isSet("DISPLAY") && !isSet("WAYLAND_DISPLAY")) return {{}, "there is no display"};
  if (auto outcome = askPortal(request)) return *outcome;
  if (auto outcome = askDialogProgram(request)) return *outcome;
  return {{}, "found neither a desktop portal nor zenity or kdialog"};
}

}  // namespace qbv::linux_backend
