// A leak check of a process with a known heap: how long it takes and how long the process stands still,
// beside the time that writing a core file of it takes.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// A child whose heap holds `blocks` live blocks of 16 to 800 bytes and one lost one per hundred.
class Target {
 public:
  explicit Target(std::size_t blocks) {
    int ready[2];
    if (pipe(ready) != 0) std::abort();
    process_ = fork();
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      populate(blocks);
      if (write(ready[1], "x", 1) == 1) pause();
      _exit(0);
    }
    char byte;
    if (read(ready[0], &byte, 1) != 1) std::abort();
    close(ready[0]);
    close(ready[1]);
  }
  ~Target() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  std::string id() const { return std::to_string(process_); }

 private:
  static void populate(std::size_t blocks) {
    static std::vector<void*> live;
    for (std::size_t i = 0; i < blocks; ++i) {
      const std::size_t size = 16 + i * 7919 % 785;
      live.push_back(std::memset(std::malloc(size), 0x5a, size));
      if (i % 100 == 0) std::memset(std::malloc(size), 0x5a, size);
    }
  }

  pid_t process_ = -1;
};

std::string outputOf(const std::string& command) {
  std::string text;
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return text;
  char part[4096];
  for (std::size_t got; (got = std::fread(part, 1, sizeof part, pipe)) > 0;) text.append(part, got);
  pclose(pipe);
  return text;
}

// The larger of the passes' times, in milliseconds; -1 when the report has none.
double stoppedFor(const std::string& report) {
  const std::size_t line = report.find("Stopped: ");
  if (line == std::string::npos) return -1;
  double first = -1;
  double second = -1;
  std::sscanf(report.c_str() + line, "Stopped: %lf ms %lf ms", &first, &second);
  return std::max(first, second);
}

void leakCheck(benchmark::State& state) {
  const Target target(static_cast<std::size_t>(state.range(0)));
  double stopped = 0;
  for (auto _ : state) {
    const double once = stoppedFor(outputOf(QBV_LEAKS " " + target.id()));
    if (once < 0) return state.SkipWithError("the process could not be examined");
    stopped += once;
  }
  state.counters["stopped_ms"] = benchmark::Counter(stopped, benchmark::Counter::kAvgIterations);
}
BENCHMARK(leakCheck)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The process stands still for nearly all of it.
void coreFile(benchmark::State& state) {
  if (std::system("command -v gcore >/dev/null 2>&1") != 0)
    return state.SkipWithError("gcore is not installed");
  const Target target(static_cast<std::size_t>(state.range(0)));
  char folder[] = "/tmp/quibcoreXXXXXX";
  if (mkdtemp(folder) == nullptr) return state.SkipWithError("no folder for the core file");
  const std::string path = std::string(folder) + "/core";
  for (auto _ : state) {
    outputOf("gcore -o " + path + " " + target.id() + " 2>&1");
    if (unlink((path + "." + target.id()).c_str()) != 0) {
      state.SkipWithError("no core file was written");
      break;
    }
  }
  rmdir(folder);
}
BENCHMARK(coreFile)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
