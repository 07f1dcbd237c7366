// A small host whose main thread sends messages that take their time, to be profiled.
//   profile_host            profiles itself once and prints where the page is
//   profile_host --serve    sends messages again and again until standard input ends, for
//                           quibvitalscope run -- profile_host --serve
//                           quibvitalscope profile PID
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>

#include "vitalscope/platform/message.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/profiler/QBVTimeProfiler.h"

using namespace qbv::literals;
using qbv::id, qbv::SEL;

namespace {

id bar = nullptr;

void workFor(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void parse(id, SEL) {
  workFor(150);
}
void save(id, SEL) {
  workFor(120);
}
void reload(id, SEL) {
  qbv::send(bar, "parse"_sel);
  qbv::send(bar, "save"_sel);
  workFor(30);
}

id defineClasses() {
  qbv::Runtime& runtime = qbv::platform().runtime;
  bar = qbv::ClassDefinition(runtime, "Bar").method("parse", parse).method("save", save).instance();
  return qbv::ClassDefinition(runtime, "Foo").method("reload", reload).instance();
}

bool turnMainLoopUntil(const std::function<bool()>& holds) {
  for (int passes = 0; passes < 1000; ++passes) {
    if (holds()) return true;
    qbv::platform().runLoop.runOnce(20);
  }
  return holds();
}

void flipRun() {
  qbv::platform().notifications.defaultCenter().post("user_method_time_profile");
}

int profileOnce(id foo) {
  const QBVTimeProfiler& profiler = *QBVTimeProfiler::sharedInstance();
  flipRun();
  if (!turnMainLoopUntil([&] { return profiler.on(); })) return 1;
  qbv::send(foo, "reload"_sel);
  flipRun();
  if (!turnMainLoopUntil([&] { return profiler.finishedRuns() == 1; })) return 1;
  for (int i = 0; i < 10; ++i) qbv::platform().runLoop.runOnce(50);  // the page is opened
  std::printf("profile_host: its page: %s\n", profiler.resultFilePath().c_str());
  return 0;
}

bool standardInputLasts() {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  char unused = 0;
  return poll(&input, 1, 0) == 0 || read(STDIN_FILENO, &unused, 1) > 0;
}

}  // namespace

int main(int count, char** arguments) {
  const id foo = defineClasses();
  if (count == 1) return profileOnce(foo);
  if (count != 2 || std::strcmp(arguments[1], "--serve") != 0) {
    std::fprintf(stderr, "usage: profile_host [--serve]\n");
    return 2;
  }
  while (standardInputLasts()) {
    qbv::send(foo, "reload"_sel);
    qbv::platform().runLoop.runOnce(20);
  }
  return 0;
}
