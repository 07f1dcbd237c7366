#include "vitalscope/probes/QBVitalscopeBacktrace.h"

#include <array>
#include <atomic>
#include <charconv>

#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeCPU.h"
#include "vitalscope/probes/footprint.h"
#include "vitalscope/probes/frame_line.h"
#include "vitalscope/probes/stack_walk.h"
#include "vitalscope/probes/symbol_memory.h"

namespace {

std::atomic<qbv::ThreadPort> mainThreadPort{0};

// Two decimals with a point, whatever locale the host has set.
void appendFigure(std::string& text, double value) {
  std::array<char, 320> digits;
  const auto end = std::to_chars(digits.begin(), digits.end(), value, std::chars_format::fixed, 2).ptr;
  text.append(digits.begin(), end);
}

void appendHeading(std::string& text, qbv::ThreadPort thread) {
  if (thread != mainThreadPort.load(std::memory_order_relaxed)) {
    text.append("Thread ").append(std::to_string(static_cast<int>(thread))).append(": \n");
    return;
  }
  text.append("Thread 0:: Dispatch queue: com.apple.main-thread , CPU:");
  appendFigure(text, QBVitalscopeCPU::cpuUsageOfThread(thread));
  text.append("%, Memory Usage:");
  appendFigure(text, qbv::physicalFootprintMegabytes());
  text.append("M \n");
}

void appendFrames(std::string& text, const qbv::AddressList& list, qbv::SymbolMemory& symbols) {
  std::array<qbv_symbol_record, qbv::maximumFrames> records;
  symbols.symbolicate(list, records.data());
  for (std::size_t i = 0; i < list.count; ++i) {
    qbv::appendFrameLine(text, static_cast<int>(i), list.addresses[i], records[i]);
  }
}

// Puts the failure's words in place of the block begun at `start`.
void replaceBlock(std::string& text, std::size_t start, const std::string& failure) {
  text.resize(start);
  text.append(failure);
}

void appendBlock(std::string& text, qbv::ThreadPort thread, qbv::SymbolMemory& symbols) {
  qbv::Task& task = qbv::platform().task;
  const std::size_t start = text.size();
  appendHeading(text, thread);
  qbv::ThreadState state;
  if (task.thread_get_state(thread, &state) != qbv::KERN_SUCCESS) {
    return replaceBlock(text, start, "Fail to get information about thread: " + std::to_string(thread));
  }
  qbv::AddressList list;
  if (!qbv::walkStack(task, thread, state, list)) {
    return replaceBlock(text, start, "Fail to get frame pointer");
  }
  appendFrames(text, list, symbols);
  text.append(1, '\n');
}

}  // namespace

void QBVitalscopeBacktrace::load() {
  mainThreadPort.store(qbv::platform().task.mainThread(), std::memory_order_relaxed);
}

std::string QBVitalscopeBacktrace::qbv_backtraceOfMainThread() {
  return _qbv_backtraceOfThread(mainThreadPort.load(std::memory_order_relaxed));
}

std::string QBVitalscopeBacktrace::qbv_backtraceOfAllThread() {
  qbv::Task& task = qbv::platform().task;
  const qbv::ThreadPort self = qbthread_self();
  qbv::ThreadPort* threads = nullptr;
  std::uint32_t count = 0;
  if (task.task_threads(&threads, &count) != qbv::KERN_SUCCESS) {
    return "Fail to get information of all threads";
  }
  std::string text = "\n";
  qbv::SymbolMemory symbols;
  task.willCaptureThreads(threads, count);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (threads[i] != self) appendBlock(text, threads[i], symbols);
    task.mach_port_deallocate(threads[i]);
  }
  task.didCaptureThreads();
  if (task.vm_deallocate(threads, count * sizeof(qbv::ThreadPort)) != qbv::KERN_SUCCESS) {
    qbv::assertionFailure("+[QBVitalscopeBacktrace qbv_backtraceOfAllThread]", "QBVitalscopeBacktrace", 73,
                          "kr == KERN_SUCCESS");
  }
  return text;
}

std::string _qbv_backtraceOfThread(qbv::ThreadPort thread) {
  std::string text;
  qbv::SymbolMemory symbols;
  appendBlock(text, thread, symbols);
  return text;
}

std::string qbv_logBacktraceEntry(int index, std::uint64_t address, const qbv_symbol_record& record) {
  std::string line;
  qbv::appendFrameLine(line, index, address, record);
  return line;
}
