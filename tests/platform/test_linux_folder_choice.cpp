#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/platform/private_bus.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/bus_library.h"
#include "vitalscope/platform/linux/folder_choice.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace qbv::linux_backend {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

template <class Signature>
Signature* function(const char* name) {
  static void* const library = dlopen("libsystemd.so.0", RTLD_NOW);
  return reinterpret_cast<Signature*>(dlsym(library, name));
}

// The desktop's portal, as far as a folder is chosen with it.
class Portal {
 public:
  // What it does when the panel is asked for.
  enum class Manner { choose, cancel, refuse, die };

  Portal(std::uint32_t version, Manner manner) : version_(version), manner_(manner) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(50);
    while (function<int(sd_bus**)>("sd_bus_open_user")(&bus_) < 0 && std::chrono::steady_clock::now() < end)
      usleep(10000);
    EXPECT_GE(function<int(sd_bus*, sd_bus_slot**, BusHandler, void*)>("sd_bus_add_filter")(bus_, nullptr,
                                                                                            onMessage, this),
              0);
    EXPECT_GE(function<int(sd_bus*, const char*, std::uint64_t)>("sd_bus_request_name")(
                  bus_, "org.freedesktop.portal.Desktop", 0),
              0);
    thread_ = std::thread([this] { serve(); });
  }
  ~Portal() {
    ends_ = true;
    thread_.join();
    if (bus_ != nullptr) function<sd_bus*(sd_bus*)>("sd_bus_flush_close_unref")(bus_);
  }

  // Read once the answer has come.
  std::string title, acceptLabel, folder;
  int directory = 0;

 private:
  void serve() {
    while (!ends_ && bus_ != nullptr) {
      function<int(sd_bus*, std::uint64_t)>("sd_bus_wait")(bus_, 20000);
      while (bus_ != nullptr &&
             function<int(sd_bus*, sd_bus_message**)>("sd_bus_process")(bus_, nullptr) > 0) {
      }
      if (dies_) bus_ = function<sd_bus*(sd_bus*)>("sd_bus_flush_close_unref")(bus_);
    }
  }

  static bool isCall(sd_bus_message* message, const char* interface, const char* member) {
    return function<int(sd_bus_message*, const char*, const char*)>("sd_bus_message_is_method_call")(
               message, interface, member) > 0;
  }
  template <class... Values>
  static void reply(sd_bus_message* message, const char* types, Values... values) {
    function<int(sd_bus_message*, const char*, ...)>("sd_bus_reply_method_return")(message, types, values...);
  }
  template <class... Places>
  static int read(sd_bus_message* message, const char* types, Places... places) {
    return function<int(sd_bus_message*, const char*, ...)>("sd_bus_message_read")(message, types, places...);
  }
  static int enter(sd_bus_message* message, char type, const char* contents) {
    return function<int(sd_bus_message*, char, const char*)>("sd_bus_message_enter_container")(message, type,
                                                                                               contents);
  }
  static void leave(sd_bus_message* message) {
    function<int(sd_bus_message*)>("sd_bus_message_exit_container")(message);
  }

  static int onMessage(sd_bus_message* message, void* context, void*) {
    auto& self = *static_cast<Portal*>(context);
    if (isCall(message, "org.freedesktop.DBus.Properties", "Get")) {
      reply(message, "v", "u", self.version_);
      return 1;
    }
    if (!isCall(message, "org.freedesktop.portal.FileChooser", "OpenFile")) return 0;
    if (self.manner_ == Manner::refuse) return 0;  // answered as an unknown method
    self.readRequest(message);
    reply(message, "o", kRequest);
    const char* const sender = function<const char*(sd_bus_message*)>("sd_bus_message_get_sender")(message);
    if (self.manner_ == Manner::die)
      self.dies_ = true;
    else
      self.respond(sender);
    return 1;
  }

  void readRequest(sd_bus_message* message) {
    const char* parent = nullptr;
    const char* text = nullptr;
    read(message, "ss", &parent, &text);
    title = text;
    enter(message, 'a', "{sv}");
    while (enter(message, 'e', "sv") > 0) {
      const char* key = nullptr;
      read(message, "s", &key);
      readOption(message, key);
      leave(message);
    }
  }
  void readOption(sd_bus_message* message, const std::string& key) {
    const char* text = nullptr;
    if (key == "directory") {
      read(message, "v", "b", &directory);
    } else if (key == "accept_label") {
      read(message, "v", "s", &text);
      acceptLabel = text;
    } else if (key == "current_folder") {
      const void* bytes = nullptr;
      std::size_t size = 0;
      enter(message, 'v', "ay");
      function<int(sd_bus_message*, char, const void**, std::size_t*)>("sd_bus_message_read_array")(
          message, 'y', &bytes, &size);
      folder.assign(static_cast<const char*>(bytes), size);
      leave(message);
    } else {
      ADD_FAILURE() << key;
    }
  }
  void respond(const char* receiver) {
    sd_bus_message* signal = nullptr;
    function<int(sd_bus*, sd_bus_message**, const char*, const char*, const char*)>(
        "sd_bus_message_new_signal")(bus_, &signal, kRequest, "org.freedesktop.portal.Request", "Response");
    function<int(sd_bus_message*, const char*)>("sd_bus_message_set_destination")(signal, receiver);
    const auto append = function<int(sd_bus_message*, const char*, ...)>("sd_bus_message_append");
    const int written = manner_ == Manner::choose
                            ? append(signal, "ua{sv}", 0U, 2, "choices", "a(ss)", 0, "uris", "as", 2,
                                     "file:///home/ada/freeze/light", "file:///home/ada/freeze/severe")
                            : append(signal, "ua{sv}", 1U, 0);
    EXPECT_GE(written, 0);
    EXPECT_GE(function<int(sd_bus*, sd_bus_message*, std::uint64_t*)>("sd_bus_send")(bus_, signal, nullptr),
              0);
    function<sd_bus_message*(sd_bus_message*)>("sd_bus_message_unref")(signal);
  }

  static constexpr char kRequest[] = "/org/freedesktop/portal/desktop/request/1_1/t";
  const std::uint32_t version_;
  const Manner manner_;
  std::atomic<bool> ends_{false};
  bool dies_ = false;
  sd_bus* bus_ = nullptr;
  std::thread thread_;
};

using Manner = Portal::Manner;

class FolderChoice : public testing::Test {
 protected:
  FolderChoice() {
    setenv("DISPLAY", ":99", 1);
    setenv("PATH", (folder_.path() + ":/usr/bin:/bin").c_str(), 1);
    unsetenv("XDG_CURRENT_DESKTOP");
    unsetenv("XDG_RUNTIME_DIR");
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/no/bus", 1);
    // A panel of this machine's own must not come up.
    program("zenity", "exit 1");
    program("kdialog", "exit 1");
  }
  void program(const std::string& name, const std::string& script) {
    std::ofstream(folder_ / name) << "#!/bin/bash\n" << script << "\n";
    ASSERT_EQ(chmod((folder_ / name).c_str(), 0700), 0);
  }
  std::string told(const std::string& name) {
    std::string text;
    std::getline(std::ifstream(folder_ / name), text, '\0');
    return text;
  }

  const FolderRequest request_{"Wählen", "/home/ada/logs $1/freeze"};
  TemporaryFolder folder_;
};

TEST(FileURL, HoldsAnyPath) {
  EXPECT_EQ(fileURL("/home/ada/ü #%?.log"), "file:///home/ada/%C3%BC%20%23%25%3F.log");
}

TEST_F(FolderChoice, ThePortalIsAskedFirst) {
  const PrivateBus bus("DBUS_SESSION_BUS_ADDRESS");
  const Portal portal(4, Manner::choose);
  const FolderOutcome outcome = askForFolder(request_);
  EXPECT_EQ(outcome.url, "file:///home/ada/freeze/light");
  EXPECT_EQ(outcome.obstacle, "");
  EXPECT_EQ(portal.title, "Wählen");
  EXPECT_EQ(portal.acceptLabel, "Wählen");
  EXPECT_EQ(portal.directory, 1);
  EXPECT_EQ(portal.folder, request_.startFolder + std::string(1, '\0'));
}

TEST_F(FolderChoice, WhoCancelsInThePortalIsNotAskedAgain) {
  const PrivateBus bus("DBUS_SESSION_BUS_ADDRESS");
  program("zenity", "echo /other");
  for (const Manner manner : {Manner::cancel, Manner::die}) {
    const Portal portal(3, manner);
    const FolderOutcome outcome = askForFolder(request_);
    EXPECT_EQ(outcome.url, std::nullopt);
    EXPECT_EQ(outcome.obstacle, "");
  }
}

TEST_F(FolderChoice, APortalThatCannotChooseFoldersIsPassedOver) {
  const PrivateBus bus("DBUS_SESSION_BUS_ADDRESS");
  program("zenity", "echo /from/zenity");
  EXPECT_EQ(askForFolder(request_).url, "file:///from/zenity") << "nobody on the bus";
  {
    const Portal portal(2, Manner::choose);
    EXPECT_EQ(askForFolder(request_).url, "file:///from/zenity");
  }
  const Portal portal(4, Manner::refuse);
  EXPECT_EQ(askForFolder(request_).url, "file:///from/zenity");
}

TEST_F(FolderChoice, DialogProgramsGetTheWholeRequest) {
  program("zenity", "printf '%s|' \"$@\" >'" + (folder_ / "told") + "'; echo '/home/ada/a  b'");
  EXPECT_EQ(askForFolder(request_).url, "file:///home/ada/a%20%20b");
  EXPECT_EQ(told("told"),
            "--file-selection|--directory|--title=Wählen|--filename=/home/ada/logs $1/freeze/|");
  setenv("XDG_CURRENT_DESKTOP", "KDE", 1);
  program("kdialog", "printf '%s|' \"$@\" >'" + (folder_ / "told") + "'; echo /k");
  EXPECT_EQ(askForFolder(request_).url, "file:///k");
  EXPECT_EQ(told("told"), "--title|Wählen|--getexistingdirectory|/home/ada/logs $1/freeze|");
  program("kdialog", "exit 1");
  EXPECT_EQ(askForFolder(request_).url, std::nullopt) << "cancelled";
}

// The answer comes on the main queue in every case; what is missing is logged once.
TEST_F(FolderChoice, AnswersOnTheMainQueueAndLogsWhatIsMissingOnce) {
  ScriptedPlatform scripted;
  std::vector<std::string> answers;
  const auto ask = [&] {
    processes().chooseFolder(
        request_, [&](const std::optional<std::string>& url) { answers.push_back(url.value_or("(none)")); });
    scripted.runUntilIdle();
    EXPECT_EQ(scripted.dispatch.mainQueueLength(), 1U);
    scripted.runLoop.drain();
  };
  program("zenity", "echo /chosen");
  ask();
  program("zenity", "exit 1");
  ask();
  EXPECT_THAT(scripted.log.messages(), testing::IsEmpty());
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  ask();
  ask();
  EXPECT_THAT(answers, ElementsAre("file:///chosen", "(none)", "(none)", "(none)"));
  EXPECT_THAT(scripted.log.messages(), ElementsAre(HasSubstr("there is no display")));
}

TEST_F(FolderChoice, WithoutAnythingToAskWithItSaysSo) {
  setenv("PATH", "/nowhere", 1);
  EXPECT_THAT(askForFolder(request_).obstacle, HasSubstr("neither a desktop portal nor zenity"));
}

}  // namespace
}  // namespace qbv::linux_backend
