// A process with a known heap. Its argument says what it does; it prints "leak ADDRESS" for every block it
// has lost, then "ready", answers every byte on standard input with a line, and ends at the end of the input.
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kThreads = 4;

// Lost blocks are remembered in a form that is no pointer to them.
struct Lost {
  std::vector<std::uintptr_t> encoded;

  void add(const void* block) { encoded.push_back(~reinterpret_cast<std::uintptr_t>(block)); }
  void print() const {
    for (const std::uintptr_t value : encoded) std::printf("leak %" PRIxPTR "\n", ~value);
  }
};

// Frames of functions that have returned hold pointers; a conservative reader would take those above the
// stack pointer for live.
[[gnu::noinline]] void cleanStack() {
  volatile char below[64 * 1024];
  for (std::size_t i = 0; i < sizeof below; ++i) below[i] = 0;
}

std::size_t mixedSize(std::mt19937& random) {
  switch (random() % 16) {
    case 0:
      return 2000 + random() % 30000;
    case 1:
    case 2:
      return 500 + random() % 1500;
    default:
      return 1 + random() % 400;
  }
}

void* filled(std::size_t size) {
  void* const block = std::malloc(size);
  if (block == nullptr) std::abort();
  std::memset(block, 0x5a, size);
  return block;
}

// Every third live block is held by a pointer into its middle only, every fifth by another block only.
[[gnu::noinline]] void populate(unsigned seed, std::size_t live, std::size_t lose, std::vector<char*>& kept,
                                Lost& lost) {
  std::mt19937 random(seed);
  std::vector<void*> dropped;
  std::size_t losses = 0;
  for (std::size_t i = 0; i < live; ++i) {
    const std::size_t size = mixedSize(random);
    auto* const block = static_cast<char*>(filled(size));
    if (i % 5 == 1 && size >= sizeof(void*)) {
      std::memcpy(block, &kept.back(), sizeof(void*));
      kept.back() = block;
    } else {
      kept.push_back(i % 3 == 0 ? block + size / 2 : block);
    }
    if (random() % 3 == 0) dropped.push_back(filled(mixedSize(random)));
    if (losses * live < i * lose) {
      lost.add(filled(mixedSize(random)));
      ++losses;
    }
  }
  while (losses++ < lose) lost.add(filled(mixedSize(random)));
  for (void* const block : dropped) std::free(block);
}

// The threads stand until the end of the process.
template <class Work>
void inThreads(int count, Work work) {
  auto* const done = new std::barrier<>(count + 1);
  for (int i = 0; i < count; ++i)
    std::thread([done, work, i] {
      work(i);
      cleanStack();
      done->arrive_and_wait();
      pause();
    }).detach();
  done->arrive_and_wait();
}

std::vector<char*> kept[kThreads];
Lost lostBy[kThreads];

void loseSomeOfMany(std::size_t live, std::size_t lose) {
  inThreads(kThreads, [=](int i) {
    populate(static_cast<unsigned>(i + 1), live / kThreads, lose / kThreads, kept[i], lostBy[i]);
  });
  for (const Lost& lost : lostBy) lost.print();
}

[[gnu::noinline]] void freeInEveryWay() {
  std::vector<void*> blocks;
  std::mt19937 random(7);
  // More than a cache takes: the rest goes into fast bins, small, large and unsorted ones.
  for (int i = 0; i < 20000; ++i) blocks.push_back(filled(1 + random() % (i % 2 == 0 ? 100 : 3000)));
  for (std::size_t i = 0; i < blocks.size(); ++i)
    if (i % 7 != 0) std::free(blocks[i]);
  for (std::size_t i = 0; i < blocks.size(); i += 7) kept[0].push_back(static_cast<char*>(blocks[i]));
  std::free(filled(1 << 20));
}

[[gnu::noinline]] void loseOddBlocks() {
  Lost& lost = lostBy[0];
  for (const std::size_t alignment : {32, 64, 256, 4096}) {
    for (const std::size_t size : {40, 5000, 400000}) {
      lost.add(std::memset(aligned_alloc(alignment, size), 1, size));
      kept[0].push_back(static_cast<char*>(std::memset(aligned_alloc(alignment, size), 2, size)));
    }
  }
  for (const std::size_t size : {30, 3000, 300000}) {
    lost.add(std::realloc(filled(size), size * 2));
    lost.add(std::realloc(filled(size * 3), size));
    kept[0].push_back(static_cast<char*>(std::realloc(filled(size), size * 5)) + size);
  }
}

struct Node {
  Node* next;
  char text[40];
};

struct Drawing {
  virtual ~Drawing() = default;
  void* shapes[10] = {};
};

// A chain of four, a ring of three, and an object with virtual functions.
[[gnu::noinline]] void loseStructures() {
  Lost& lost = lostBy[0];
  Node* chain = nullptr;
  Node* first = nullptr;
  for (int i = 0; i < 7; ++i) {
    auto* const node = static_cast<Node*>(filled(sizeof(Node)));
    std::strcpy(node->text, i == 3 ? "head of the chain" : "member");
    node->next = i == 4 ? nullptr : chain;
    if (i == 4) first = node;
    if (i == 6) first->next = node;
    chain = node;
    lost.add(node);
  }
  lost.add(new Drawing);
}

thread_local void* volatile heldByThread = nullptr;
pthread_key_t key;

[[gnu::noinline]] void holdInOddPlaces() {
  inThreads(2, [](int) {
    heldByThread = filled(3000);
    if (pthread_setspecific(key, filled(3100)) != 0) std::abort();
  });
#if defined(__x86_64__)
  static std::atomic<int> spinning{0};
  const auto spin = [](auto hold) {
    std::thread([hold] {
      void* const block = filled(3200);
      cleanStack();
      hold(block);
    }).detach();
  };
  // The only copy of the pointer is in a register; the frame of the thread's start is wiped by the loop.
  spin([](void* block) {
    asm volatile("movq %0, %%r12\n xorl %%eax, %%eax\n xorq %0, %0\n lock incl %1\n 1: pause\n jmp 1b"
                 : "+r"(block), "+m"(spinning)::"r12", "rax", "memory");
  });
  spin([](void* block) {
    asm volatile("movq %0, %%xmm9\n xorq %0, %0\n lock incl %1\n 1: pause\n jmp 1b"
                 : "+r"(block), "+m"(spinning)::"xmm9", "memory");
  });
  while (spinning < 2) std::this_thread::yield();
#endif
}

[[gnu::noinline]] void letThreadsEnd() {
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([i] { populate(static_cast<unsigned>(i + 10), 2000, 100, kept[i], lostBy[i]); });
  for (std::thread& thread : threads) thread.join();
  for (const Lost& lost : lostBy) lost.print();
}

void keepAllocating() {
  inThreads(1, [](int) {});
  for (int i = 0; i < kThreads; ++i)
    std::thread([i] {
      std::mt19937 random(static_cast<unsigned>(i));
      std::vector<void*> blocks(1000);
      while (true) {
        void*& block = blocks[random() % blocks.size()];
        std::free(block);
        block = std::malloc(mixedSize(random));
      }
    }).detach();
}

void keepStartingThreads() {
  for (int i = 0; i < kThreads; ++i)
    std::thread([] {
      while (true) std::thread([] { std::free(filled(100)); }).join();
    }).detach();
}

void takeTheSystemsBreak() {
  kept[0].push_back(static_cast<char*>(filled(50000)));
  void* const own = sbrk(12345);
  if (own == reinterpret_cast<void*>(-1)) std::abort();
  for (int i = 0; i < 100; ++i) kept[0].push_back(static_cast<char*>(filled(3000)));
  for (int i = 0; i < 10; ++i) lostBy[0].add(filled(2000));
}

const std::map<std::string, std::function<void()>> kModes = {
    {"many", [] { loseSomeOfMany(100000, 1000); }},
    {"few", [] { loseSomeOfMany(4000, 40); }},
    {"frees", [] { freeInEveryWay(); }},
    {"odd", [] { loseOddBlocks(); }},
    {"structures", [] { loseStructures(); }},
    {"held", [] { holdInOddPlaces(); }},
    {"ended", [] { letThreadsEnd(); }},
    {"busy", [] { keepAllocating(); }},
    {"starts", [] { keepStartingThreads(); }},
    {"break", [] { takeTheSystemsBreak(); }},
    {"headless", [] { loseSomeOfMany(4000, 40); }},
};

[[noreturn]] void answer() {
  for (char request; read(STDIN_FILENO, &request, 1) == 1;)
    if (write(STDOUT_FILENO, "alive\n", 6) != 6) break;
  _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  const auto mode = argc > 1 ? kModes.find(argv[1]) : kModes.end();
  if (mode == kModes.end() || pthread_key_create(&key, nullptr) != 0) return 2;
  if (argc > 2) loseSomeOfMany(static_cast<std::size_t>(std::atol(argv[2])), 0);
  mode->second();
  cleanStack();
  if (mode->first == "odd" || mode->first == "structures" || mode->first == "break") lostBy[0].print();
  std::printf("ready\n");
  std::fflush(stdout);
  if (mode->first != "headless") answer();
  std::thread(answer).detach();
  pthread_exit(nullptr);
}
