#include "tools/quibvitalscope/process_link.h"

#include <signal.h>

#include <cerrno>

#include "tools/quibvitalscope/help.h"

namespace qbv::cli {

std::unique_ptr<control::Client> linkTo(int process, std::string& error) {
  if (::kill(process, 0) == 0) return control::Client::connect(process, error);
  const std::string id = std::to_string(process);
  error = errno == ESRCH ? "there is no process " + id : "process " + id + " is another user's";
  return nullptr;
}

void addProcessArgument(CLI::App& command, int& process) {
  command.add_option("PID", process, "Process id of the program")->required()->check(processId());
}

}  // namespace qbv::cli
