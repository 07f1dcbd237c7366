// Reaching a program that 'run' started.
#pragma once

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "host/control/client.h"

namespace qbv::cli {

// Null, with the reason as a sentence, when there is no such process, it is another user's or not monitored.
std::unique_ptr<control::Client> linkTo(int process, std::string& error);

// Adds the argument PID.
void addProcessArgument(CLI::App& command, int& process);

}  // namespace qbv::cli
