// Preloaded into a program, tells what the platform finds of all its threads, whenever it is asked.
//
// QBV_STACK_TELLER="IN OUT" names two open descriptors. For each byte read from IN, one line per thread comes
// out of OUT, "THREAD pc return-address return-address …" in hexadecimal except for the thread's number, and
// an empty line at the end. A thread that could not be captured has a number and nothing more. The first line
// of all is the teller's own thread, which is in no other list.
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "vitalscope/platform/platform.h"

namespace {

int gIn, gOut;

void say(const std::string& text) {
  if (write(gOut, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
}

std::string hexadecimal(std::uint64_t address) {
  char text[20];
  std::snprintf(text, sizeof text, " %lx", address);
  return text;
}

std::string stackOf(qbv::Task& task, qbv::ThreadPort thread) {
  qbv::ThreadState state;
  std::string line = std::to_string(thread);
  if (task.thread_get_state(thread, &state) != qbv::KERN_SUCCESS) return line + "\n";
  task.thread_suspend(thread);
  line += hexadecimal(state.pc);
  std::uint64_t record[2] = {state.fp, 0};
  while (task.vm_read_overwrite(record[0], sizeof record, record, nullptr) == qbv::KERN_SUCCESS &&
         record[0] != 0) {
    line += hexadecimal(record[1]);
  }
  task.thread_resume(thread);
  return line + "\n";
}

std::string stacksOfAll(qbv::Task& task) {
  qbv::ThreadPort* threads = nullptr;
  std::uint32_t count = 0;
  std::string text;
  if (task.task_threads(&threads, &count) != qbv::KERN_SUCCESS) return "\n";
  task.willCaptureThreads(threads, count);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (threads[i] != task.mach_thread_self()) text += stackOf(task, threads[i]);
  }
  task.didCaptureThreads();
  task.vm_deallocate(threads, count * sizeof *threads);
  return text + "\n";
}

void* tell(void*) {
  qbv::Task& task = qbv::platform().task;
  say(std::to_string(task.mach_thread_self()) + "\n");
  for (char byte; read(gIn, &byte, 1) == 1;) say(stacksOfAll(task));
  return nullptr;
}

__attribute__((constructor)) void begin() {
  const char* const ends = std::getenv("QBV_STACK_TELLER");
  if (ends == nullptr || std::sscanf(ends, "%d %d", &gIn, &gOut) != 2) return;
  pthread_t thread;
  pthread_create(&thread, nullptr, tell, nullptr);
}

}  // namespace
