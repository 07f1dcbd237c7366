// What arrives at the system log's socket and at the end of a pipe.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/temporary_folder.h"
#include "vitalscope/platform/linux/log_sinks.h"

namespace qbv::linux_backend {
namespace {

// A system log daemon in a folder of its own.
class Daemon {
 public:
  Daemon() {
    socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path_.c_str());
    const timeval patience{5, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~Daemon() { close(socket_); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  const char* path() const { return path_.c_str(); }

  // The next datagram; empty when none comes for five seconds.
  std::string next() {
    std::string datagram(1 << 20, '\0');
    const ssize_t length = recv(socket_, datagram.data(), datagram.size(), 0);
    datagram.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return datagram;
  }

 private:
  TemporaryFolder folder_;
  const std::string path_ = folder_ / "log";
  int socket_ = -1;
};

std::string textOf(const std::string& datagram) {
  const auto colon = datagram.find(": ");
  return colon == std::string::npos ? "" : datagram.substr(colon + 2);
}

TEST(LinuxLog, MessageIsOneDatagramWithOwnHeader) {
  Daemon daemon;
  sendToSystemLog(daemon.path(), "first line\nsecond line: 100%s");
  const std::string expected = std::string("<13>") + program_invocation_short_name + "[" +
                               std::to_string(getpid()) + "]: first line\nsecond line: 100%s";
  EXPECT_EQ(daemon.next(), expected);
}

TEST(LinuxLog, LongMessageIsCutAtLineEndsAndNothingIsLost) {
  Daemon daemon;
  std::string message;
  for (int line = 0; line < 20000; ++line)
    message += "line " + std::to_string(line) + " of a long backtrace\n";
  std::jthread sender([&] { sendToSystemLog(daemon.path(), message); });
  std::string arrived;
  bool wholeLines = true;
  int pieces = 0;
  while (arrived.size() < message.size()) {
    const std::string datagram = daemon.next();
    ASSERT_NE(datagram, "") << "nothing more came after " << arrived.size() << " bytes";
    arrived += textOf(datagram);
    wholeLines = wholeLines && datagram.back() == '\n';
    ++pieces;
  }
  EXPECT_GT(pieces, 1);
  EXPECT_TRUE(wholeLines);
  EXPECT_TRUE(arrived == message);
}

TEST(LinuxLog, AbsentDaemonIsNoTrouble) {
  sendToSystemLog("/nonexistent/log", "nobody reads this");
  sendToSystemLog(std::string(300, 'x').c_str(), "a path no socket can have");
}

TEST(LinuxLog, MessagesOfSeveralThreadsDoNotMix) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  constexpr int kThreads = 4;
  constexpr std::size_t kLength = 100'000;  // more than a pipe takes at once
  std::string all;
  std::jthread reader([&] {
    std::array<char, 4096> buffer{};
    for (ssize_t got; (got = read(ends[0], buffer.data(), buffer.size())) > 0;)
      all.append(buffer.data(), static_cast<std::size_t>(got));
  });
  {
    std::vector<std::jthread> writers;
    for (int thread = 0; thread < kThreads; ++thread)
      writers.emplace_back([&, thread] {
        for (int i = 0; i < 5; ++i)
          writeWhole(ends[1], std::string(kLength, static_cast<char>('a' + thread)) + "\n");
      });
  }
  close(ends[1]);
  reader.join();
  close(ends[0]);

  std::map<std::string, int> lines;
  std::istringstream stream(all);
  for (std::string line; std::getline(stream, line);) ++lines[line];
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads));
  for (int thread = 0; thread < kThreads; ++thread)
    EXPECT_EQ(lines[std::string(kLength, static_cast<char>('a' + thread))], 5);
}

TEST(LinuxLog, BrokenPipeRaisesNoSignalAndLeavesNoneBehind) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  close(ends[0]);
  writeWhole(ends[1], "nobody reads this\n");
  close(ends[1]);
  sigset_t set;
  sigpending(&set);
  EXPECT_EQ(sigismember(&set, SIGPIPE), 0);
  pthread_sigmask(SIG_BLOCK, nullptr, &set);
  EXPECT_EQ(sigismember(&set, SIGPIPE), 0);
}

}  // namespace
}  // namespace qbv::linux_backend
