// The layout of help texts.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace qbv::cli {

// Gives a command its own help: the usage line ("run [OPTIONS] -- COMMAND") and a description that is longer
// than the one in the list of commands. Texts are wrapped to 80 columns.
void setHelp(CLI::App& command, const std::string& usage, const std::string& description);

// Accept process ids, or one of some words, and complain in plain words.
CLI::Validator processId();
CLI::Validator oneOf(std::vector<std::string> words);

// Breaks lines at blanks so that none is longer than `width`, unless it has no blank; lines that begin with a
// blank (examples) stay as they are.
std::string wrapped(const std::string& text, std::size_t width);

}  // namespace qbv::cli
