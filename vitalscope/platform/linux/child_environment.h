// What a child process sees of the host's environment.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qbv::linux_backend {

// The preload list without this project's libraries; other entries keep their order. Nothing when none is
// left.
std::optional<std::string> preloadWithoutOwn(std::string_view list);

// These "NAME=value" entries with a preload list as above, without variables of this project, and with
// `toolsFolder` (unless empty) in front of PATH.
std::vector<std::string> childEnvironment(const char* const* entries, const std::string& toolsFolder);

// Folder of the companion programs: the installed one beside the folder of the library that holds this code,
// or the build tree's. "" when there is none. Looked for once.
const std::string& companionToolsFolder();

}  // namespace qbv::linux_backend
