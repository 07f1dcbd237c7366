// A process to sample: its main thread answers every byte on standard input from deep inside plainly named
// functions, and counts SIGUSR1; another thread spins. For an "x" it becomes a new one. With an argument the
// thread that answers is another one, and the first has ended.
#include <pthread.h>
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
  if (request == 'x') execl("/proc/self/exe", "again", nullptr);
  if (answered) {
    const unsigned char count = signals;
    answered = write(STDOUT_FILENO, &count, 1) == 1;
  }
  return answered;
}

[[gnu::noinline]] void serveRequests() {
  while (waitForRequest()) continue;
}

// Its name is also a mangled type.
[[gnu::noinline]] void* w(void*) {
  serveRequests();
  _exit(0);
}
}

int main(int count, char**) {
  if (count > 1) {
    std::thread([] { w(nullptr); }).detach();
    pthread_exit(nullptr);
  }
  std::signal(SIGUSR1, [](int) { ++signals; });
  std::atomic<bool> stop{false};
  std::thread spinner([&] { spinForEver(stop); });
  serveRequests();
  stop = true;
  spinner.join();
  return 0;
}
