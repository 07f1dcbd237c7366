#include "vitalscope/platform/linux/child_environment.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>

#include "vitalscope/platform/linux/own_folder.h"

namespace qbv::linux_backend {
namespace {

constexpr std::string_view preloadVariable = "LD_PRELOAD=";
constexpr std::string_view pathVariable = "PATH=";
constexpr std::string_view ownVariables = "QUIBVITALSCOPE_";
constexpr std::string_view preloadSeparators = " :";
constexpr std::string_view systemPath = "/usr/local/bin:/usr/bin:/bin";

bool isOwnLibrary(std::string_view path) {
  const std::string_view name = path.substr(path.find_last_of('/') + 1);
  return name.starts_with("libquibvitalscope") || name.starts_with("libquibplatform");
}

std::string withFolderInFront(const std::string& folder, std::string_view path) {
  if (folder.empty() || folder.find(':') != std::string::npos) return std::string(path);
  return folder + ":" + std::string(path);
}

std::string findCompanionTools() {
  const std::string folder = ownFolder();
  if (folder.empty()) return {};
  for (const char* const place : {QBV_TOOLS_FROM_LIBRARY, "../libexec/quibvitalscope", "../tools"}) {
    const std::string candidate = *place == '/' ? place : folder + place;
    const std::unique_ptr<char, void (*)(void*)> found(::realpath(candidate.c_str(), nullptr), std::free);
    if (found != nullptr) return found.get();
  }
  return {};
}

}  // namespace

std::optional<std::string> preloadWithoutOwn(std::string_view list) {
  std::string kept;
  while (!list.empty()) {
    const std::size_t end = std::min(list.find_first_of(preloadSeparators), list.size());
    const std::string_view entry = list.substr(0, end);
    if (!entry.empty() && !isOwnLibrary(entry)) kept.append(kept.empty() ? "" : ":").append(entry);
    list.remove_prefix(std::min(end + 1, list.size()));
  }
  if (kept.empty()) return std::nullopt;
  return kept;
}

std::vector<std::string> childEnvironment(const char* const* entries, const std::string& toolsFolder) {
  std::vector<std::string> kept;
  bool hasPath = false;
  for (; entries != nullptr && *entries != nullptr; ++entries) {
    const std::string_view entry = *entries;
    if (entry.starts_with(ownVariables)) continue;
    if (entry.starts_with(preloadVariable)) {
      const auto list = preloadWithoutOwn(entry.substr(preloadVariable.size()));
      if (list) kept.push_back(std::string(preloadVariable) + *list);
    } else if (entry.starts_with(pathVariable)) {
      hasPath = true;
      kept.push_back(std::string(pathVariable) +
                     withFolderInFront(toolsFolder, entry.substr(pathVariable.size())));
    } else {
      kept.emplace_back(entry);
    }
  }
  if (!hasPath) kept.push_back(std::string(pathVariable) + withFolderInFront(toolsFolder, systemPath));
  return kept;
}

const std::string& companionToolsFolder() {
  static const std::string* const folder = new std::string(findCompanionTools());
  return *folder;
}

}  // namespace qbv::linux_backend
