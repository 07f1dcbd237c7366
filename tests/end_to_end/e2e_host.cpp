// A host application that does what it is told, one command a line on its standard input:
//   signin | signout | active | inactive     post the notification
//   turn SECONDS                             let the main loop turn
//   allocate MEGABYTES                       take one block of the heap, and keep it
//   block SECONDS | spin SECONDS             keep the main thread from answering
//   grow MEGABYTES                           take and use memory, which is never given back
//   lose COUNT BYTES                         take blocks that nothing points to afterwards
//   note MEGABYTES                           take memory with a note of where it came from, once and twice
//   status NUMBER                            the call status that the host answers (2: in a meeting)
//   allowleaks | leave                       allow the leak check; tell that a meeting was left
//   load LIBRARY                             load a library on another thread, and wait for that
//   exit
// It answers each with "done COMMAND". Arguments: --log | --no-log, --email ADDRESS.
#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>

#include "blocked_work.h"
#include "memory_work.h"
#include "vitalscope/platform/platform.h"

namespace {

bool keepsLogs = true;
std::string& email = *new std::string;  // a monitor may ask while the process ends
qbv::id profile = nullptr;
qbv::id helper = nullptr;
std::atomic<int> callStatus{0};

void defineHostClasses() {
  using qbv::ClassDefinition, qbv::id, qbv::SEL;
  qbv::Runtime& runtime = qbv::platform().runtime;
  profile = ClassDefinition(runtime, "EndToEndProfile")
                .method(
                    "getEmail", +[](id, SEL) -> const char* { return email.c_str(); })
                .instance();
  helper = ClassDefinition(runtime, "EndToEndHelper")
               .method(
                   "getCallStatus", +[](id, SEL) -> int { return callStatus; })
               .instance();
  ClassDefinition(runtime, "QBKXAppInterfaceAdapter")
      .classMethod(
          "sharedUserProfileInstance", +[](id, SEL) -> id { return profile; })
      .classMethod(
          "sharedKXAppHelperInstance", +[](id, SEL) -> id { return helper; });
  ClassDefinition(runtime, "NSBundle")
      .classMethod(
          "isLogVersion", +[](id, SEL) -> bool { return keepsLogs; });
}

// The host has a loop of its own, which polls the main queue's descriptor with everything else.
void turn(double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  qbv::RunLoop& loop = qbv::platform().runLoop;
  while (Clock::now() < end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    pollfd entry{loop.descriptor(), POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(left.count())) > 0) loop.drain();
  }
}

// Waits for a line of input, turning the loop meanwhile. False at the end of the input.
bool readCommand(std::string& line) {
  line.clear();
  qbv::RunLoop& loop = qbv::platform().runLoop;
  for (;;) {
    pollfd entries[] = {{STDIN_FILENO, POLLIN, 0}, {loop.descriptor(), POLLIN, 0}};
    if (poll(entries, 2, -1) < 0) continue;
    if (entries[1].revents != 0) loop.drain();
    if (entries[0].revents == 0) continue;
    char letter = 0;
    if (read(STDIN_FILENO, &letter, 1) != 1) return false;
    if (letter == '\n') return true;
    line += letter;
  }
}

void post(const char* name) {
  qbv::platform().notifications.defaultCenter().post(name);
}

void allowLeakCheck() {
  qbv::platform().notifications.defaultCenter().post("user_leaks_detect",
                                                     qbv::Value::Dictionary{{"enable_leaks_detect", true}});
}

// False for a word that has nothing to do with memory.
bool takeMemory(const std::string& verb, std::istringstream& words) {
  std::size_t number = 0;
  std::size_t bytes = 0;
  if (verb == "grow" && words >> number)
    keepThumbnails(number);
  else if (verb == "allocate" && words >> number)
    keepBlock(number);
  else if (verb == "lose" && words >> number >> bytes)
    loseDrafts(number, bytes);
  else if (verb == "note" && words >> number)
    loadSlides(number), renderSlides(number);
  else
    return false;
  return true;
}

void loadLibrary(const std::string& library) {
  std::thread([&] {
    if (dlopen(library.c_str(), RTLD_NOW) == nullptr) std::fprintf(stderr, "%s\n", dlerror());
  }).join();
}

bool obey(const std::string& line) {
  std::istringstream words(line);
  std::string verb;
  words >> verb;
  double seconds = 0;
  int status = 0;
  std::string library;
  if (verb == "signin")
    post("Noti_Login_FB_Login_Finished");
  else if (verb == "signout")
    post("Noti_LogOut");
  else if (verb == "active")
    post(qbv::NSApplicationDidBecomeActiveNotification);
  else if (verb == "inactive")
    post(qbv::NSApplicationDidResignActiveNotification);
  else if (verb == "allowleaks")
    allowLeakCheck();
  else if (verb == "leave")
    post("QBV_CMD_CONF_LEAVE_COMPLETE");
  else if (verb == "turn" && words >> seconds)
    turn(seconds);
  else if (verb == "block" && words >> seconds)
    importAttachments(seconds);
  else if (verb == "spin" && words >> seconds)
    recalculateSheet(seconds);
  else if (verb == "status" && words >> status)
    callStatus = status;
  else if (verb == "load" && words >> library)
    loadLibrary(library);
  else
    return takeMemory(verb, words);
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  for (int index = 1; index < count; ++index) {
    const std::string option = arguments[index];
    if (option == "--log" || option == "--no-log")
      keepsLogs = option == "--log";
    else if (option == "--email" && index + 1 < count)
      email = arguments[++index];
    else
      return 2;
  }
  defineHostClasses();
  for (std::string line; readCommand(line);) {
    if (line == "exit") return 0;
    if (!obey(line)) return 3;
    std::printf("done %s\n", line.c_str());
    std::fflush(stdout);
  }
  return 0;
}
