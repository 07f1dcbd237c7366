// How long after a dlopen the slots of what it brought are rewritten. Run by hand:
//   rebind_arrival [COUNT]
#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "vitalscope/profiler/qb_symbol_rebind.h"

namespace {

using Clock = std::chrono::steady_clock;

int hook(int value) {
  return value + 1000;
}

double microseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

}  // namespace

int main(int count, char** arguments) {
  const int rounds = count > 1 ? std::atoi(arguments[1]) : 300;
  const qb_rebinding request{"rebind_target", reinterpret_cast<void*>(hook), nullptr};
  qb_rebind_symbols(&request);
  std::vector<double> waits;
  for (int i = 0; i < rounds; ++i) {
    void* const module = dlopen(QBV_MODULE, RTLD_LAZY | RTLD_LOCAL);
    const Clock::time_point arrived = Clock::now();
    const auto call =
        reinterpret_cast<int (*)(int)>(module != nullptr ? dlsym(module, "call_target") : nullptr);
    if (call == nullptr) return 1;
    while (call(1) != 1001) std::this_thread::yield();
    waits.push_back(microseconds(Clock::now() - arrived));
    dlclose(module);
    std::this_thread::sleep_for(
        std::chrono::milliseconds(i % 40));  // at different points of the watch's naps
  }
  std::sort(waits.begin(), waits.end());
  const auto at = [&](double part) {
    return waits[static_cast<std::size_t>(part * static_cast<double>(waits.size() - 1))];
  };
  std::printf(
      "rebound after dlopen returned, microseconds: median %.0f, 95 %% %.0f, longest %.0f (%d times)\n",
      at(0.5), at(0.95), at(1), rounds);
  return 0;
}
