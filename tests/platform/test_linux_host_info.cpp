#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/temporary_folder.h"
#include "vitalscope/platform/linux/areas.h"

namespace qbv {
namespace {

constexpr const char* reportDescriptor = "QBV_TEST_REPORT_DESCRIPTOR";

HostInfo& info() {
  return linux_backend::hostInfo();
}

// In a copy of this program: removes the copy under itself, then tells its name.
void tellTheNameOfARemovedProgram(const char* descriptor) {
  std::filesystem::remove(std::filesystem::read_symlink("/proc/self/exe"));
  const std::string name = info().processName();
  ASSERT_EQ(::write(std::atoi(descriptor), name.data(), name.size()), static_cast<ssize_t>(name.size()));
}

TEST(LinuxHostInfo, ProcessNameIsTheProgramsEvenWhenItsFileIsGone) {
  if (const char* const descriptor = std::getenv(reportDescriptor)) {
    return tellTheNameOfARemovedProgram(descriptor);
  }
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").filename();
  EXPECT_EQ(info().processName(), self);

  const TemporaryFolder folder;
  const std::string copy = folder / "my host (deleted)";
  std::filesystem::copy_file("/proc/self/exe", copy);
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::setenv(reportDescriptor, std::to_string(ends[1]).c_str(), 1);
  const std::string command =
      "'" + copy + "' --gtest_filter=LinuxHostInfo.ProcessNameIsTheProgramsEvenWhenItsFileIsGone >&2";
  EXPECT_EQ(std::system(command.c_str()), 0);
  ::close(ends[1]);
  std::array<char, 256> told{};
  EXPECT_GT(::read(ends[0], told.data(), told.size() - 1), 0);
  EXPECT_STREQ(told.data(), "my host (deleted)");
}

TEST(LinuxHostInfo, AForkedChildHasItsOwnIdentifier) {
  const int parent = info().processIdentifier();
  EXPECT_EQ(parent, ::getpid());
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(info().parentProcessIdentifier() == parent && info().processIdentifier() != parent ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(LinuxHostInfo, SystemFactsAreTheKernels) {
  utsname facts{};
  ASSERT_EQ(::uname(&facts), 0);
  const auto version = info().operatingSystemVersion();
  ASSERT_TRUE(version);
  EXPECT_THAT(std::string(facts.release),
              testing::StartsWith(std::to_string(version->major) + "." + std::to_string(version->minor)));
  EXPECT_EQ(info().hostName(), std::string(facts.nodename));
  EXPECT_EQ(info().localArchitecture(), facts.machine);
}

TEST(LinuxHostInfo, BundleFactsAreTheHostsOnly) {
  EXPECT_EQ(info().infoDictionaryValue("CFBundleVersion"), std::nullopt);
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i) {
    writers.emplace_back([i] {
      for (int round = 0; round < 500; ++round) {
        info().setInfoDictionaryValue("key" + std::to_string(i), std::to_string(round));
        info().infoDictionaryValue("key" + std::to_string((i + 1) % 4));
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(info().infoDictionaryValue("key" + std::to_string(i)), "499");
  info().setInfoDictionaryValue("CFBundleName", "");
  EXPECT_EQ(info().infoDictionaryValue("CFBundleName"), "");
}

}  // namespace
}  // namespace qbv
