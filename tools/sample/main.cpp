// sample PID SECONDS -file PATH: what the threads of a running process do, as call trees with counts.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "tools/sample/report_writer.h"
#include "tools/sample/stack_reader.h"
#include "tools/tracer/process_facts.h"
#include "tools/tracer/tracer.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr std::chrono::milliseconds kStep{10};
constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;

struct Options {
  pid_t process = 0;
  double seconds = 0;
  std::string file;
};

template <class Number>
bool parse(const char* text, Number& number) {
  const char* const end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, number);
  return error == std::errc() && stop == end && number > 0;
}

std::optional<Options> parseOptions(int argc, char** argv) {
  Options options;
  if (argc != 5 || std::string(argv[3]) != "-file") return std::nullopt;
  if (!parse(argv[1], options.process) || !parse(argv[2], options.seconds) || options.seconds > 3600)
    return std::nullopt;
  options.file = argv[4];
  return options;
}

std::string threadName(pid_t process, pid_t thread) {
  return tracer::firstLine("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/comm");
}

// What was seen, by thread: equal chains are counted, names are looked up once at the end.
struct Observations {
  std::map<pid_t, std::string> names;
  std::map<pid_t, std::map<sample::Chain, std::size_t>> chains;
  std::vector<double> stoppedMilliseconds;
  std::size_t sweeps = 0;
  Clock::duration length{};
  std::string note;
};

void sweep(pid_t process, tracer::Tracer& tracer, sample::StackReader& reader, Observations& seen) {
  const auto begin = Clock::now();
  const std::vector<pid_t>& stopped = tracer.stopAll();
  for (std::size_t i = 0; i < stopped.size() && !tracer.executed(); ++i) {
    const sample::Chain chain = reader.chainOf(stopped[i]);
    if (!chain.empty()) ++seen.chains[stopped[i]][chain];
  }
  tracer.resumeAll();
  if (tracer.executed()) return;
  seen.stoppedMilliseconds.push_back(Milliseconds(Clock::now() - begin).count());
  ++seen.sweeps;
  for (const auto& [thread, chains] : seen.chains)
    if (!seen.names.contains(thread)) seen.names[thread] = threadName(process, thread);
}

Observations observe(const Options& options, tracer::Tracer& tracer, sample::StackReader& reader) {
  Observations seen;
  const auto begin = Clock::now();
  const auto end =
      begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.seconds));
  auto next = begin;
  do {
    sweep(options.process, tracer, reader, seen);
    if (!tracer.executed()) reader.refresh();
    // A sweep that took longer than a step is not made up for: the target comes first.
    next = std::max(next + kStep, Clock::now());
    const auto outcome = tracer.serveUntil(std::min(next, end));
    if (outcome == tracer::Tracer::Wait::targetEnded) seen.note = "the process ended during the sampling";
    if (outcome == tracer::Tracer::Wait::targetExecuted)
      seen.note = "the process executed another program during the sampling";
    if (outcome == tracer::Tracer::Wait::interrupted) seen.note = "the sampling was interrupted";
  } while (seen.note.empty() && Clock::now() < end);
  seen.length = Clock::now() - begin;
  return seen;
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

sample::Sampling summarise(const Options& options, const Observations& seen, sample::StackReader& reader) {
  sample::Sampling sampling;
  sampling.processId = static_cast<std::uint32_t>(options.process);
  sampling.seconds = std::chrono::duration<double>(seen.length).count();
  sampling.stepMilliseconds = Milliseconds(kStep).count();
  sampling.sweeps = seen.sweeps;
  sampling.stoppedMilliseconds = median(seen.stoppedMilliseconds);
  sampling.note = seen.note;
  sample::CallTree::Names names;
  for (const auto& [thread, chains] : seen.chains) {
    sample::ThreadSamples samples{static_cast<std::uint32_t>(thread), seen.names.at(thread), {}};
    for (const auto& [chain, count] : chains) {
      for (const std::uint64_t address : chain)
        if (!names.contains(address)) names[address] = reader.nameOf(address);
      samples.tree.add(chain, count, names);
    }
    samples.tree.sort();
    sampling.threads.push_back(std::move(samples));
  }
  // Thread ids ascend, so the main thread, whose id is the process's, leads unless ids have wrapped round.
  std::stable_partition(sampling.threads.begin(), sampling.threads.end(),
                        [&](const auto& samples) { return samples.thread == sampling.processId; });
  sampling.images = reader.images();
  return sampling;
}

bool writeFile(const std::string& path, const std::string& text) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0) return false;
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = write(file, text.data() + done, text.size() - done);
    if (written < 0 && errno != EINTR) break;
    if (written > 0) done += static_cast<std::size_t>(written);
  }
  return close(file) == 0 && done == text.size();
}

int fail(const std::string& why) {
  std::fprintf(stderr, "sample: %s\n", why.c_str());
  return kExitFailure;
}

// The tracer takes these itself, between two sweeps, so that the target is never left stopped.
void blockSignals() {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) sigaddset(&blocked, signal);
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<Options> options = parseOptions(argc, argv);
  if (!options) {
    std::fputs("usage: sample PID SECONDS -file PATH\n", stderr);
    return kExitUsage;
  }
  blockSignals();
  tracer::Tracer tracer(options->process);
  if (const std::string failure = tracer.attach(); !failure.empty()) return fail(failure);
  sample::StackReader reader(tracer::livingThread(options->process));
  if (const std::string failure = reader.open(); !failure.empty()) return fail(failure);
  const std::string name = tracer::firstLine("/proc/" + std::to_string(options->process) + "/comm");
  const std::string executable =
      tracer::linkTarget("/proc/" + std::to_string(tracer::livingThread(options->process)) + "/exe");
  const std::string date = tracer::localDate();

  const Observations seen = observe(*options, tracer, reader);
  tracer.detach();
  if (seen.chains.empty()) return fail(seen.note.empty() ? "no stack could be read" : seen.note);
  sample::Sampling sampling = summarise(*options, seen, reader);
  sampling.process = name;
  sampling.executable = executable;
  sampling.date = date;
  if (!writeFile(options->file, sample::renderSampling(sampling)))
    return fail("cannot write " + options->file + ": " + std::strerror(errno));
  return 0;
}
