// Prints what one call takes in nanoseconds, made in the way that is asked for.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "vitalscope/platform/hot_path.h"
#include "vitalscope/platform/message.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/profiler/QBMessageSendHook.h"

namespace {

using namespace qbv::literals;

constexpr int kCalls = 20'000, kRounds = 1000;  // short, so that some are left undisturbed

struct Base {
  virtual ~Base() = default;
  virtual int add(int value) = 0;
};
struct One : Base {
  [[gnu::noinline]] int add(int value) override { return value + 1; }
};
[[gnu::noinline]] int add(qbv::id, qbv::SEL, int value) {
  return value + 1;
}

template <class Call>
[[gnu::noinline]] double bestOf(Call call) {
  double best = 1e9;
  for (int round = 0; round < kRounds; ++round) {
    const auto start = std::chrono::steady_clock::now();
    int value = 0;
    for (int i = 0; i < kCalls; ++i) value = call(value);
    const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - start;
    best = std::min(best, taken.count() / kCalls);
    asm volatile("" : : "r"(value));
  }
  return best;
}

double sends(qbv::id object) {
  const qbv::SEL selector = "add:"_sel;
  return bestOf([=](int value) { return qbv::send<int>(object, selector, value); });
}

double elsewhere(qbv::id object) {
  double taken = 0;
  std::thread([&] { taken = sends(object); }).join();
  return taken;
}

double clockReadings() {
  qbv::TimeOfDayFunction* const now = qbv::timeOfDayFunction();
  return bestOf([=](int value) {
    qbv::TimeOfDay first, second;
    now(&first, nullptr);
    now(&second, nullptr);
    return value + static_cast<int>(second.microseconds - first.microseconds);
  });
}

double measure(const char* way, qbv::id object) {
  const auto is = [=](const char* name) { return std::strcmp(way, name) == 0; };
  if (is("virtual")) {
    Base* base = new One;
    asm volatile("" : "+r"(base));
    return bestOf([=](int value) { return base->add(value); });
  }
  if (is("send")) return sends(object);
  if (is("clock")) return clockReadings();
  dtp_hook_begin();
  if (is("main")) return sends(object);
  if (is("other")) return elsewhere(object);
  // As sends that are in flight when a run ends leave it: through the trampoline, and untimed.
  void* const original = orig_objc_msgSend;
  dtp_hook_end();
  orig_objc_msgSend = original;
  const auto hooked =
      reinterpret_cast<int (*)(qbv::id, qbv::SEL, int)>(reinterpret_cast<qbv::IMP>(hook_objc_msgSend));
  const qbv::SEL selector = "add:"_sel;
  return bestOf([=](int value) { return hooked(object, selector, value); });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  qbv::ClassDefinition host(qbv::platform().runtime, "Adder");
  host.method("add:", add);
  std::printf("%.2f\n", measure(argv[1], host.instance()));
}
