#include <algorithm>
#include <cmath>
#include <utility>

#include "vitalscope/platform/scripted/scripted_task.h"

namespace qbv {

void ScriptedTask::addThread(const ScriptedThread& thread) {
  const std::lock_guard lock(mutex_);
  if (ListedThread* const found = find(thread.port))
    static_cast<ScriptedThread&>(*found) = thread;
  else
    threads_.push_back({thread, 0});
}

void ScriptedTask::addThread(ThreadPort port, std::int32_t cpuUsage, std::int32_t flags) {
  addThread(ScriptedThread{port, {cpuUsage, flags}, {}});
}

void ScriptedTask::setState(ThreadPort port, const ThreadState& state) {
  const std::lock_guard lock(mutex_);
  if (ListedThread* const found = find(port)) found->state = state;
}

void ScriptedTask::setCpuUsage(ThreadPort port, std::int32_t cpuUsage, std::int32_t flags) {
  const std::lock_guard lock(mutex_);
  if (ListedThread* const found = find(port)) found->info = {cpuUsage, flags};
}

void ScriptedTask::removeThread(ThreadPort port) {
  const std::lock_guard lock(mutex_);
  std::erase_if(threads_, [port](const ListedThread& thread) { return thread.port == port; });
}

void ScriptedTask::removeAllThreads() {
  const std::lock_guard lock(mutex_);
  threads_.clear();
}

void ScriptedTask::setSelf(ThreadPort port) {
  const std::lock_guard lock(mutex_);
  self_ = port;
}

void ScriptedTask::setSelfOfCallingThread(ThreadPort port) {
  const std::lock_guard lock(mutex_);
  selfOfThread_[std::this_thread::get_id()] = port;
}

void ScriptedTask::setMainThread(ThreadPort port) {
  const std::lock_guard lock(mutex_);
  mainThread_ = port;
}

void ScriptedTask::fail(TaskCall call, KernReturn result, std::optional<ThreadPort> thread, unsigned skip,
                        unsigned times) {
  const std::lock_guard lock(mutex_);
  failures_.push_back({call, result, thread, skip, times, false});
}

void ScriptedTask::clearFailures() {
  const std::lock_guard lock(mutex_);
  failures_.clear();
  failingReads_.clear();
}

void ScriptedTask::mapMemory(std::uint64_t address, std::span<const std::byte> bytes) {
  const std::lock_guard lock(mutex_);
  memory_[address].assign(bytes.begin(), bytes.end());
}

void ScriptedTask::mapWords(std::uint64_t address, const std::vector<std::uint64_t>& words) {
  mapMemory(address, std::as_bytes(std::span(words)));
}

void ScriptedTask::mapFrameRecord(std::uint64_t address, std::uint64_t previous,
                                  std::uint64_t returnAddress) {
  mapWords(address, {previous, returnAddress});
}

std::uint64_t ScriptedTask::mapFrameChain(std::uint64_t address,
                                          const std::vector<std::uint64_t>& returnAddresses,
                                          std::uint64_t stride) {
  std::uint64_t place = address;
  for (std::size_t i = 0; i < returnAddresses.size(); ++i, place += stride)
    mapFrameRecord(place, i + 1 < returnAddresses.size() ? place + stride : 0, returnAddresses[i]);
  return address;
}

void ScriptedTask::unmap(std::uint64_t address) {
  const std::lock_guard lock(mutex_);
  memory_.erase(address);
}

void ScriptedTask::failReadsAt(std::uint64_t address, KernReturn result) {
  const std::lock_guard lock(mutex_);
  failingReads_[address] = result;
}

void ScriptedTask::setReadsRealMemory(bool on) {
  const std::lock_guard lock(mutex_);
  readsRealMemory_ = on;
}

void ScriptedTask::setFootprint(std::uint64_t bytes) {
  const std::lock_guard lock(mutex_);
  footprint_ = bytes;
}

void ScriptedTask::setFootprintMegabytes(double megabytes) {
  setFootprint(static_cast<std::uint64_t>(std::llround(megabytes * 1024 * 1024)));
}

void ScriptedTask::setProcessStartTimeMilliseconds(std::optional<double> time) {
  const std::lock_guard lock(mutex_);
  startTime_ = time;
}

void ScriptedTask::setBacktrace(std::vector<std::uint64_t> returnAddresses) {
  const std::lock_guard lock(mutex_);
  backtrace_ = std::move(returnAddresses);
}

void ScriptedTask::setAddressMask(std::uint64_t mask) {
  const std::lock_guard lock(mutex_);
  addressMask_ = mask;
}

std::vector<TaskCallRecord> ScriptedTask::calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

std::vector<TaskCall> ScriptedTask::callsForThread(ThreadPort thread) const {
  const std::lock_guard lock(mutex_);
  std::vector<TaskCall> calls;
  for (const TaskCallRecord& record : calls_)
    if (record.thread == thread) calls.push_back(record.call);
  return calls;
}

std::size_t ScriptedTask::callCount(TaskCall call) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::ranges::count(calls_, call, &TaskCallRecord::call));
}

void ScriptedTask::clearCalls() {
  const std::lock_guard lock(mutex_);
  calls_.clear();
}

std::size_t ScriptedTask::portsOutstanding() const {
  const std::lock_guard lock(mutex_);
  std::size_t count = 0;
  for (const auto& [port, references] : portsOut_) count += static_cast<std::size_t>(references);
  return count;
}

std::size_t ScriptedTask::listsOutstanding() const {
  const std::lock_guard lock(mutex_);
  return lists_.size();
}

std::vector<ThreadPort> ScriptedTask::suspendedThreads() const {
  const std::lock_guard lock(mutex_);
  std::vector<ThreadPort> ports;
  for (const ListedThread& thread : threads_)
    if (thread.suspensions > 0) ports.push_back(thread.port);
  return ports;
}

}  // namespace qbv
