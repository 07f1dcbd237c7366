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

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>

#include "blocked_work.h"
#include "memory_work.h"
#include "tests/end_to_end/told_host.h"
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
    e2e::turn(seconds);
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
  return e2e::obeyAll(obey);
}
