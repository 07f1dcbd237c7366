// A host application in a process of its own, and what it leaves on disk.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace e2e {

// Far beyond anything that goes well, on a machine that does other things too.
inline constexpr double kPatience = 60;

// Looks again and again until it holds; false when patience ends.
bool eventually(const std::function<bool()>& holds, double seconds = kPatience);

// A folder that goes with the object.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const std::filesystem::path& path() const noexcept { return path_; }

 private:
  std::filesystem::path path_;
};

class HostProcess {
 public:
  // Starts it with this home folder, or with no HOME at all. `variables`: further "NAME=value" entries for
  // its environment.
  HostProcess(const std::string& executable, const std::vector<std::string>& arguments,
              const std::optional<std::filesystem::path>& home,
              const std::vector<std::string>& variables = {});
  ~HostProcess();  // kills it if it still runs
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  pid_t pid() const noexcept { return pid_; }
  // Hands the commands over and returns at once; they are obeyed one after the other.
  void tell(const std::vector<std::string>& commands);
  // Waits until all commands told so far are done; false when the host ended or patience did.
  bool finished();
  // Tells it to exit and waits. Its exit status; -1 when it had to be killed or died of a signal.
  int exitStatus();
  // Names of its threads at this moment.
  std::vector<std::string> threadNames() const;
  // Its diagnostic folder, below the home it was given.
  std::filesystem::path diagnosticRoot() const;
  // Hang reports of one level ("light"), or of all levels, oldest name first.
  std::vector<std::filesystem::path> hangReports(const std::string& level = "") const;

 private:
  bool readReply(double seconds);

  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::size_t awaited_ = 0;
  std::string unread_;
  std::optional<std::filesystem::path> home_;
};

// Where a host without HOME writes.
std::filesystem::path homeFromPasswordDatabase();

std::string contentOf(const std::filesystem::path& file);
// The lines of the main thread's block in a report, heading included; empty when there is none.
std::vector<std::string> mainThreadBlock(const std::string& report);

}  // namespace e2e
