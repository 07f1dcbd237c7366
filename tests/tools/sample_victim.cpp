// A process to sample: its main thread answers every byte on standard input from deep inside plainly named
// functions, and counts SIGUSR1; another thread spins.
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace {
std::atomic<unsigned char> signals{0};
}

extern "C" {
[[gnu::noinline]] void spinForEver(std::atomic<bool>& stop) {
  while (!stop.load(std::memory_order_relaxed)) continue;
}

[[gnu::noinline]] bool waitForRequest() {
  char request = 0;
  bool answered = read(STDIN_FILENO, &request, 1) == 1;
  if (answered) {
    const unsigned char count = signals;
    answered = write(STDOUT_FILENO, &count, 1) == 1;
  }
  return answered;
}

[[gnu::noinline]] void serveRequests() {
  while (waitForRequest()) continue;
}
}

int main() {
  std::signal(SIGUSR1, [](int) { ++signals; });
  std::atomic<bool> stop{false};
  std::thread spinner([&] { spinForEver(stop); });
  serveRequests();
  stop = true;
  spinner.join();
  return 0;
}
