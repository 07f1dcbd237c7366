#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/control/client.h"
#include "host/control/server.h"
#include "host/control/socket_place.h"
#include "host/standin/control_socket.h"
#include "tests/platform/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using qbv::Value;
using qbv::control::Client;
using qbv::control::ControlServer;
using qbv::control::Descriptor;
using qbv::control::ServerLimits;
using qbv::control::SocketFolder;
using testing::ElementsAre;
using testing::HasSubstr;

// A client that can do everything wrong.
class RawClient {
 public:
  explicit RawClient(const SocketFolder& folder) : socket_(folder.connect("7.sock")) {}
  bool say(const std::string& bytes) {
    return send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // The next line; "" when the server ends the connection first.
  std::string hear() {
    for (;;) {
      const std::size_t end = heard_.find('\n');
      if (end != std::string::npos) {
        std::string line = heard_.substr(0, end);
        heard_.erase(0, end + 1);
        return line;
      }
      char buffer[4096];
      const ssize_t count = recv(socket_.get(), buffer, sizeof buffer, 0);
      if (count <= 0) return "";
      heard_.append(buffer, static_cast<std::size_t>(count));
    }
  }
  void finishSending() { shutdown(socket_.get(), SHUT_WR); }
  int descriptor() const { return socket_.get(); }

 private:
  Descriptor socket_;
  std::string heard_;
};

class Control : public testing::Test {
 protected:
  Control() { setenv("XDG_RUNTIME_DIR", runtime_.path().c_str(), 1); }
  ~Control() override {
    if (!thread_.joinable()) return;
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
  }

  void serve(ServerLimits limits = {}) {
    folder_ = SocketFolder::open(true);
    ASSERT_TRUE(folder_);
    Descriptor listener = folder_->listen("7.sock");
    ASSERT_TRUE(listener);
    listener_ = listener.get();
    server_ = std::make_unique<ControlServer>(
        std::move(listener),
        qbv::control::Requests{[this](const std::string& name, const Value& info) {
                                 const std::lock_guard lock(postedLock_);
                                 posted_.push_back(name + info.jsonText().value_or(""));
                               },
                               [this] { return status_; }},
        limits);
    thread_ = std::thread([this] { server_->serve(); });
  }

  std::vector<std::string> posted() {
    const std::lock_guard lock(postedLock_);
    return posted_;
  }

  qbv::TemporaryFolder runtime_;
  std::optional<SocketFolder> folder_;
  Value status_ = Value::Dictionary{{"pid", 7}};
  std::mutex postedLock_;
  std::vector<std::string> posted_;
  int listener_ = -1;
  std::unique_ptr<ControlServer> server_;
  std::thread thread_;
};

TEST_F(Control, ClientPostsAndAsksForTheStatus) {
  serve();
  std::string error;
  const auto client = Client::connect(7, error);
  ASSERT_NE(client, nullptr) << error;
  EXPECT_TRUE(client->post("user_leaks_detect", Value::Dictionary{{"enable_leaks_detect", true}}, error));
  EXPECT_TRUE(client->post("plain", {}, error));
  EXPECT_EQ(client->status(error), status_);
  EXPECT_FALSE(client->request(Value::Dictionary{{"dance", true}}, error));
  EXPECT_EQ(error, "unknown request");
  EXPECT_FALSE(client->request(Value("text"), error));
  EXPECT_EQ(client->status(error), status_) << "a refused request is not the end";
  EXPECT_THAT(posted(), ElementsAre(R"(user_leaks_detect{"enable_leaks_detect":true})", "plain"));
  EXPECT_THAT(qbv::control::listeningProcesses(), ElementsAre(7));
}

TEST_F(Control, AnswersEveryLineInOrderAndSaysWhatIsWrong) {
  serve();
  RawClient client(*folder_);
  client.say(
      "{\"post\": \"a\"}\n[1]\n{\"post\": 5}\n{\"post\": \"\"}\n{\"post\": \"b\", \"userInfo\": "
      "[1]}\n\n{\"sta");
  EXPECT_EQ(client.hear(), R"({"ok":true})");
  for (const char* reason : {"JSON object", "post", "post", "userInfo", "JSON object"})
    EXPECT_THAT(client.hear(), AllOf(HasSubstr("\"error\""), HasSubstr(reason)));
  client.say("tus\": true}\n{\"status\": false}\n" + std::string(30000, '[') + "\n{\"post\": \"\xff\"}\n");
  EXPECT_EQ(client.hear(), R"({"pid":7})");
  for (int line = 0; line < 3; ++line) EXPECT_THAT(client.hear(), HasSubstr("\"error\""));
  client.say("{\"post\": \"last\"}\n");
  client.finishSending();
  EXPECT_EQ(client.hear(), R"({"ok":true})");
  EXPECT_EQ(client.hear(), "");
  EXPECT_THAT(posted(), ElementsAre("a", "last"));
}

TEST_F(Control, RefusesLongMessagesAndStaysThereForOthers) {
  serve();
  for (const bool ended : {true, false}) {
    RawClient client(*folder_);
    std::string message = "{\"post\": \"" + std::string(qbv::control::kMaximumMessageBytes, 'x') + "\"}";
    client.say(message + (ended ? "\n" : ""));
    EXPECT_THAT(client.hear(), HasSubstr("too long"));
    EXPECT_EQ(client.hear(), "");
  }
  RawClient client(*folder_);
  const std::string name(qbv::control::kMaximumMessageBytes - 13, 'x');
  client.say("{\"post\": \"" + name + "\"}\n");
  EXPECT_EQ(client.hear(), R"({"ok":true})");
  EXPECT_THAT(posted(), ElementsAre(name));
}

TEST_F(Control, RefusesWhoComesWhenTooManyAreThere) {
  serve({.connections = 2});
  auto first = std::make_unique<RawClient>(*folder_);
  RawClient second(*folder_);
  for (RawClient* client : {first.get(), &second}) {
    client->say("{\"status\": true}\n");
    ASSERT_EQ(client->hear(), R"({"pid":7})");
  }
  RawClient third(*folder_);
  EXPECT_THAT(third.hear(), HasSubstr("too many connections"));
  EXPECT_EQ(third.hear(), "");
  first.reset();
  for (std::string answer; answer.find("pid") == std::string::npos;) {
    RawClient next(*folder_);
    next.say("{\"status\": true}\n");
    answer = next.hear();
  }
}

TEST_F(Control, DropsSlowClientsAndServesOthersMeanwhile) {
  status_ = Value::Dictionary{{"long", std::string(50000, 'x')}};
  serve({.connections = 8, .patience = std::chrono::milliseconds(300)});
  RawClient silent(*folder_);
  RawClient half(*folder_);
  half.say("{\"stat");
  RawClient takesNothing(*folder_);
  for (int request = 0; request < 200; ++request)
    if (send(takesNothing.descriptor(), "{\"status\": true}\n", 17, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) break;

  RawClient other(*folder_);
  other.say("{\"post\": \"meanwhile\"}\n");
  EXPECT_EQ(other.hear(), R"({"ok":true})");
  EXPECT_EQ(silent.hear(), "");
  EXPECT_EQ(half.hear(), "");
  pollfd ended{takesNothing.descriptor(), 0, 0};
  EXPECT_EQ(poll(&ended, 1, 60000), 1);
  EXPECT_NE(ended.revents & POLLHUP, 0);
}

TEST_F(Control, SocketsArePrivateAndDeadOnesAreRemoved) {
  serve();
  const fs::path folder = fs::path(runtime_.path()) / "quibvitalscope";
  struct stat status;
  ASSERT_EQ(stat(folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);
  ASSERT_EQ(stat((folder / "7.sock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);

  folder_->listen("8.sock");
  folder_->listen("x.sock");
  qbv::standin::removeDeadSockets(*folder_);
  EXPECT_THAT(folder_->names(), testing::UnorderedElementsAre(".", "..", "7.sock", "x.sock"));
  std::string error;
  EXPECT_EQ(Client::connect(8, error), nullptr);
  EXPECT_THAT(error, HasSubstr("no control socket"));
  folder_->listen("8.sock");
  EXPECT_EQ(Client::connect(8, error), nullptr);
  EXPECT_THAT(error, HasSubstr("does not run any more"));

  ASSERT_EQ(chmod(folder.c_str(), 0750), 0);
  EXPECT_FALSE(SocketFolder::open(true)) << "others may look in";
  setenv("XDG_RUNTIME_DIR", "relative", 1);
  EXPECT_FALSE(SocketFolder::open(true));
  unsetenv("XDG_RUNTIME_DIR");
  EXPECT_FALSE(SocketFolder::open(true));
  EXPECT_EQ(Client::connect(8, error), nullptr);
  EXPECT_THAT(error, HasSubstr("XDG_RUNTIME_DIR"));
}

TEST_F(Control, LongPathsAreNoObstacle) {
  const fs::path deep = fs::path(runtime_.path()) / std::string(150, 'd');
  fs::create_directory(deep);
  setenv("XDG_RUNTIME_DIR", deep.c_str(), 1);
  serve();
  std::string error;
  EXPECT_NE(Client::connect(7, error), nullptr) << error;
}

TEST_F(Control, AnotherUserIsNotHeard) {
  if (geteuid() != 0) GTEST_SKIP() << "needs a second user";
  serve();
  const pid_t child = fork();
  if (child == 0) {
    if (setresuid(65534, 65534, 65534) != 0) _exit(2);
    RawClient stranger(*folder_);  // the folder's descriptor is inherited, but not the right to use it
    _exit(stranger.say("{\"post\": \"intruder\"}\n") ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);

  // Where the folder's protection fails, the other end's user is looked at.
  chmod(runtime_.path().c_str(), 0755);
  chmod((fs::path(runtime_.path()) / "quibvitalscope").c_str(), 0755);
  chmod((fs::path(runtime_.path()) / "quibvitalscope/7.sock").c_str(), 0666);
  const pid_t second = fork();
  if (second == 0) {
    if (setresuid(65534, 65534, 65534) != 0) _exit(2);
    RawClient stranger(*folder_);
    if (stranger.descriptor() < 0) _exit(3);
    stranger.say("{\"post\": \"intruder\"}\n");
    _exit(stranger.hear().empty() ? 0 : 1);
  }
  ASSERT_EQ(waitpid(second, &status, 0), second);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(posted().empty());
}

}  // namespace
