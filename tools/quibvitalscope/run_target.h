// Finding the program that a command names, and telling whether a preloaded library can live in it.
#pragma once

#include <optional>
#include <string>

namespace qbv::cli {

struct Refusal {
  int exitCode = 0;
  std::string reason;  // a sentence without a full stop
};

// As a shell finds it: `name` itself when it holds a slash, else the first executable file of that name in
// the folders of `pathVariable`. Nothing, with the refusal filled in, when there is none.
std::optional<std::string> findProgram(const std::string& name, const std::string& pathVariable,
                                       Refusal& refusal);

// Why the program's file cannot be monitored: statically linked, of another architecture or C library, or
// run with privileges that make the loader ignore preloads. Of a script the interpreter decides. Nothing when
// it can be.
std::optional<Refusal> whyUnmonitored(const std::string& path);

}  // namespace qbv::cli
