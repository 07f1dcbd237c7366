// Every wait in every variant on a thread of its own. First the waits are short and all threads are captured
// again and again, then they are long and each thread is captured once. Prints
//   counts WAITS INTERRUPTED CAPTURES INCOMPLETE
//   stack NAME;THREAD;pc return-address ...
// and "ready", then waits until its input is closed. Argument: how many captures of all threads.
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tests/platform/test_threads.h"
#include "tests/platform/victims/waits.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/blocked_thread.h"
#include "wait_variants.h"

#define QBV_DECLARE(name) extern "C" qbv_wait_function name;
#define QBV_LIST(name) {#name, name},
QBV_WAIT_VARIANTS(QBV_DECLARE)

namespace {

using namespace qbv;
using namespace qbv::linux_backend;

const struct Variant {
  const char* name;
  qbv_wait_function* wait;
} kVariants[] = {QBV_WAIT_VARIANTS(QBV_LIST)};

std::atomic<bool> gLong{false};
std::atomic<long> gWaits{0}, gInterrupted{0};

class Waiter {
 public:
  Waiter(const Variant& variant, int wait, int shape)
      : name_(variant.name + (" " + std::to_string(wait)) + " " + std::to_string(shape)) {
    socketpair(AF_UNIX, SOCK_STREAM, 0, sockets_);
    sem_init(&never_, 0, 0);
    waiter_ = {wait, shape, 20'000'000, 0, sockets_[0], epoll_create1(EPOLL_CLOEXEC), &never_};
    thread_ = std::make_unique<test::TestThread>([this, &variant](const auto&) { run(variant); });
  }
  ThreadPort port() const { return thread_->port(); }
  const std::string& name() const { return name_; }
  bool settled() const { return settled_; }

 private:
  [[noreturn]] void run(const Variant& variant) {
    const int shape = waiter_.shape;
    for (int turn = 0;; ++turn) {
      if (gLong) {
        waiter_.shape = shape;
        waiter_.seconds = 3600;
        settled_ = true;
      } else {
        waiter_.shape = turn % SHAPES;
      }
      if (variant.wait(&waiter_) != 0) ++gInterrupted;
      ++gWaits;
    }
  }

  std::string name_;
  int sockets_[2];
  sem_t never_;
  qbv_waiter waiter_;
  std::atomic<bool> settled_{false};
  std::unique_ptr<test::TestThread> thread_;
};

using Stack = std::vector<std::uint64_t>;

std::vector<Stack> captureAll(const std::vector<std::unique_ptr<Waiter>>& waiters) {
  std::vector<ThreadPort> ports;
  std::vector<Stack> stacks;
  for (const auto& waiter : waiters) ports.push_back(waiter->port());
  task().willCaptureThreads(ports.data(), static_cast<std::uint32_t>(ports.size()));
  for (const ThreadPort port : ports) {
    ThreadState state;
    const bool captured = task().thread_get_state(port, &state) == KERN_SUCCESS;
    stacks.push_back(captured ? test::walk(task(), state) : Stack{});
  }
  task().didCaptureThreads();
  return stacks;
}

void waitUntilBlocked(const Waiter& waiter) {
  while (!waiter.settled()) usleep(1000);
  for (BlockedThread thread(waiter.port());;) {
    const SystemCallLine first = thread.look();
    usleep(2000);
    if (first.state == SystemCallLine::State::blocked && thread.unmoved()) return;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int captures = argc > 1 ? std::atoi(argv[1]) : 1;
  std::vector<std::unique_ptr<Waiter>> waiters;
  for (const Variant& variant : kVariants) {
    for (int wait = 0; wait < WAITS; ++wait) {
      waiters.push_back(std::make_unique<Waiter>(variant, wait, static_cast<int>(waiters.size()) % SHAPES));
    }
  }
  long taken = 0, incomplete = 0;
  std::uint64_t outermost = 0;
  for (int i = 0; i < captures; ++i) {
    for (const Stack& stack : captureAll(waiters)) {
      ++taken;
      if (outermost == 0 && stack.size() > 6) outermost = stack.back();
      incomplete += stack.empty() || stack.back() != outermost ? 1 : 0;
    }
  }
  std::printf("counts %ld %ld %ld %ld\n", gWaits.load(), gInterrupted.load(), taken, incomplete);
  gLong = true;
  for (const auto& waiter : waiters) waitUntilBlocked(*waiter);
  const std::vector<Stack> stacks = captureAll(waiters);
  for (std::size_t i = 0; i < waiters.size(); ++i) {
    std::printf("stack %s;%u;", waiters[i]->name().c_str(), waiters[i]->port());
    for (const std::uint64_t address : stacks[i]) std::printf("%lx ", address);
    std::printf("\n");
  }
  std::printf("ready\n");
  std::fflush(stdout);
  char byte;
  while (read(0, &byte, 1) > 0) {
  }
  std::_Exit(0);
}
