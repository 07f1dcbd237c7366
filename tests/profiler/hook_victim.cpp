// A host that sends messages through its import of objc_msgSend while a run is going, as debuggers and
// captures find it. On standard output: what it was asked for, then "ready"; then it stays until its input
// ends.
//   records   begins a run, makes a few calls, ends it and prints the records
//   waiting   waits in the innermost of several nested sends and prints its own capture of the main thread
//   working   the same, but works instead of waiting
//   stepped   sends once, without waiting, between calls of the functions before_steps and after_steps
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "vitalscope/platform/message.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"
#include "vitalscope/profiler/QBMessageSendHook.h"

using namespace qbv::literals;
using qbv::id;
using qbv::SEL;

extern "C" {
[[gnu::noinline, gnu::visibility("default")]] void before_steps() {
  asm volatile("");
}
[[gnu::noinline, gnu::visibility("default")]] void after_steps() {
  asm volatile("");
}
}

namespace {

struct Large {
  long values[6];
};

std::atomic<bool> inside{false};
bool works = false;

void stay() {
  inside = true;
  char byte;
  if (works)
    for (;;) asm volatile("");
  while (read(0, &byte, 1) > 0) {
  }
  _exit(0);
}

// Uses no register that its callers want kept, so that these stand where they stood.
void innermost(id, SEL) {
  stay();
}
Large middle(id self, SEL, long double number) {
  qbv::send(self, "innermost"_sel);
  return {{static_cast<long>(number)}};
}
int outer(id self, SEL, int levels) {
  if (levels == 0) return static_cast<int>(qbv::send<Large>(self, "middle:"_sel, 1.5L).values[0]);
  return qbv::send<int>(self, "outer:"_sel, levels - 1) + 1;
}
int fail(id, SEL) {
  throw std::runtime_error("failed");
}
int guarded(id self, SEL) {
  try {
    return qbv::send<int>(self, "fail"_sel);
  } catch (const std::runtime_error&) {
    return qbv::send<int>(self, "slow"_sel);
  }
}
int slow(id, SEL) {
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return 7;
}
int quick(id, SEL, int value) {
  return value;
}

id makeObject() {
  qbv::ClassDefinition host(qbv::platform().runtime, "Victim");
  host.method("innermost", innermost).method("middle:", middle).method("outer:", outer);
  host.method("fail", fail).method("guarded", guarded).method("slow", slow).method("quick:", quick);
  return host.instance();
}

void ready() {
  std::puts("ready");
  std::fflush(stdout);
}

void printRecords(id object) {
  dtp_hook_begin();
  const int result = qbv::send<int>(object, "guarded"_sel);
  std::thread([&] { qbv::send<int>(object, "slow"_sel); }).join();
  dtp_hook_end();
  qbv::send<int>(object, "slow"_sel);
  std::printf("result %d\n", result);
  std::int32_t count = 0;
  const dtp_call_record* const records = dtp_get_call_records(&count);
  for (std::int32_t i = 0; i < count; ++i)
    std::printf("%d %s %s %d\n", records[i].depth, qbv::Runtime::NSStringFromClass(records[i].cls),
                qbv::Runtime::NSStringFromSelector(records[i].selector), records[i].timeCost >= 20000);
  ready();
}

void printOwnCapture() {
  while (!inside) std::this_thread::yield();
  std::istringstream text(QBVitalscopeBacktrace::qbv_backtraceOfMainThread());
  for (std::string line; std::getline(text, line);)
    if (!line.empty()) std::puts(line.c_str());
  ready();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string way = argc > 1 ? argv[1] : "";
  const id object = makeObject();
  QBVitalscopeBacktrace::load();
  if (way == "records") {
    printRecords(object);
    return 0;
  }
  qbv::send<int>(object, "quick:"_sel, 1);
  dtp_hook_begin();
  if (way == "stepped") {
    qbv::send<int>(object, "quick:"_sel, 1);
    before_steps();
    qbv::send<int>(object, "quick:"_sel, 1);
    after_steps();
    return 0;
  }
  works = way == "working";
  std::thread(printOwnCapture).detach();
  return qbv::send<int>(object, "outer:"_sel, 3);
}
