// A recorded profiling run made ready to be shown or handed to a viewer of flame graphs.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qbv::cli {

struct ProfiledCall {
  std::string name;  // "-[Foo reload]"; control characters and broken UTF-8 replaced
  double milliseconds = 0;
  std::vector<ProfiledCall> calls;  // made from it, latest first
};

// The outermost calls, earliest first, of the file that a run leaves; nothing, with the reason in `error`,
// when it is none.
std::optional<std::vector<ProfiledCall>> parseProfile(std::string_view json, std::string& error);

// For a person: the lines and the total of the page, of all calls.
std::string profileTree(const std::vector<ProfiledCall>& calls);
// One line per stack: names from the outermost, ';' between them, a blank, microseconds spent outside of the
// calls that were recorded below it. Equal stacks are added up; stacks of 0 are left out.
std::string profileFolded(const std::vector<ProfiledCall>& calls);
// A file for speedscope, "evented", milliseconds. Of a call only its duration is recorded: calls stand in the
// order in which they were made, and close together.
std::string profileSpeedscope(const std::vector<ProfiledCall>& calls, const std::string& title);

}  // namespace qbv::cli
