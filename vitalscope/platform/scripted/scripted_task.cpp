#include "vitalscope/platform/scripted/scripted_task.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace qbv {

namespace {
constexpr std::size_t kRoomForCalls = 65536;
}

ScriptedTask::ScriptedTask() {
  calls_.reserve(kRoomForCalls);
}

ScriptedTask::~ScriptedTask() = default;

ThreadPort ScriptedTask::mach_thread_self() {
  const std::lock_guard lock(mutex_);
  return selfLocked();
}

ThreadPort ScriptedTask::selfLocked() const {
  const auto own = selfOfThread_.find(std::this_thread::get_id());
  return own == selfOfThread_.end() ? self_ : own->second;
}

ThreadPort ScriptedTask::mainThread() {
  const std::lock_guard lock(mutex_);
  return mainThread_;
}

KernReturn ScriptedTask::task_threads(ThreadPort** list, std::uint32_t* count) {
  const std::lock_guard lock(mutex_);
  if (const auto failure = scriptedFailure(TaskCall::task_threads, 0))
    return record(TaskCall::task_threads, *failure);
  *count = static_cast<std::uint32_t>(threads_.size());
  auto ports = std::make_unique<ThreadPort[]>(threads_.size());
  for (std::size_t i = 0; i < threads_.size(); ++i) {
    ports[i] = threads_[i].port;
    ++portsOut_[threads_[i].port];
  }
  *list = ports.get();
  listSizes_[*list] = threads_.size() * sizeof(ThreadPort);
  lists_[*list] = std::move(ports);
  return record(TaskCall::task_threads, KERN_SUCCESS);
}

KernReturn ScriptedTask::mach_port_deallocate(ThreadPort port) {
  const std::lock_guard lock(mutex_);
  const auto failure = scriptedFailure(TaskCall::mach_port_deallocate, port);
  if (failure) return record(TaskCall::mach_port_deallocate, *failure, port);
  const auto out = portsOut_.find(port);
  if (out == portsOut_.end()) return record(TaskCall::mach_port_deallocate, KERN_INVALID_ARGUMENT, port);
  if (--out->second == 0) portsOut_.erase(out);
  return record(TaskCall::mach_port_deallocate, KERN_SUCCESS, port);
}

KernReturn ScriptedTask::vm_deallocate(const void* address, std::size_t size) {
  const std::lock_guard lock(mutex_);
  const auto place = reinterpret_cast<std::uintptr_t>(address);
  if (const auto failure = scriptedFailure(TaskCall::vm_deallocate, 0))
    return record(TaskCall::vm_deallocate, *failure, 0, place);
  const auto handedOut = listSizes_.find(address);
  if (handedOut == listSizes_.end() || handedOut->second != size)
    return record(TaskCall::vm_deallocate, KERN_INVALID_ARGUMENT, 0, place);
  listSizes_.erase(handedOut);
  lists_.erase(address);
  return record(TaskCall::vm_deallocate, KERN_SUCCESS, 0, place);
}

KernReturn ScriptedTask::thread_info(ThreadPort thread, ThreadBasicInfo* info) {
  const std::lock_guard lock(mutex_);
  if (const auto failure = scriptedFailure(TaskCall::thread_info, thread))
    return record(TaskCall::thread_info, *failure, thread);
  const ScriptedThread* const found = find(thread);
  if (found == nullptr) return record(TaskCall::thread_info, KERN_INVALID_ARGUMENT, thread);
  *info = found->info;
  return record(TaskCall::thread_info, KERN_SUCCESS, thread);
}

KernReturn ScriptedTask::thread_get_state(ThreadPort thread, ThreadState* state) {
  const std::lock_guard lock(mutex_);
  if (const auto failure = scriptedFailure(TaskCall::thread_get_state, thread))
    return record(TaskCall::thread_get_state, *failure, thread);
  const ScriptedThread* const found = find(thread);
  if (found == nullptr) return record(TaskCall::thread_get_state, KERN_INVALID_ARGUMENT, thread);
  if (thread == selfLocked()) return record(TaskCall::thread_get_state, KERN_FAILURE, thread);
  *state = found->state;
  return record(TaskCall::thread_get_state, KERN_SUCCESS, thread);
}

KernReturn ScriptedTask::thread_suspend(ThreadPort thread) {
  const std::lock_guard lock(mutex_);
  if (const auto failure = scriptedFailure(TaskCall::thread_suspend, thread))
    return record(TaskCall::thread_suspend, *failure, thread);
  ListedThread* const found = find(thread);
  if (found == nullptr) return record(TaskCall::thread_suspend, KERN_INVALID_ARGUMENT, thread);
  ++found->suspensions;
  return record(TaskCall::thread_suspend, KERN_SUCCESS, thread);
}

KernReturn ScriptedTask::thread_resume(ThreadPort thread) {
  const std::lock_guard lock(mutex_);
  if (const auto failure = scriptedFailure(TaskCall::thread_resume, thread))
    return record(TaskCall::thread_resume, *failure, thread);
  ListedThread* const found = find(thread);
  if (found == nullptr) return record(TaskCall::thread_resume, KERN_INVALID_ARGUMENT, thread);
  if (found->suspensions == 0) return record(TaskCall::thread_resume, KERN_FAILURE, thread);
  --found->suspensions;
  return record(TaskCall::thread_resume, KERN_SUCCESS, thread);
}

void ScriptedTask::willCaptureThreads(const ThreadPort*, std::uint32_t) {
  const std::lock_guard lock(mutex_);
  record(TaskCall::willCaptureThreads, KERN_SUCCESS);
}

void ScriptedTask::didCaptureThreads() {
  const std::lock_guard lock(mutex_);
  record(TaskCall::didCaptureThreads, KERN_SUCCESS);
}

int ScriptedTask::backtrace(void** buffer, int size) {
  const std::lock_guard lock(mutex_);
  int count = 0;
  for (; count < size && static_cast<std::size_t>(count) < backtrace_.size(); ++count)
    buffer[count] = reinterpret_cast<void*>(backtrace_[static_cast<std::size_t>(count)]);
  return count;
}

KernReturn ScriptedTask::vm_read_overwrite(std::uint64_t address, std::size_t size, void* buffer,
                                           std::size_t* copied) {
  const std::lock_guard lock(mutex_);
  if (copied != nullptr) *copied = 0;
  KernReturn result = KERN_SUCCESS;
  if (const auto failure = scriptedFailure(TaskCall::vm_read_overwrite, 0))
    result = *failure;
  else
    result = readMemory(address, size, static_cast<std::byte*>(buffer));
  if (result == KERN_SUCCESS && copied != nullptr) *copied = size;
  return record(TaskCall::vm_read_overwrite, result, 0, address);
}

// Whole or not at all: first the places are checked, then the bytes are copied.
KernReturn ScriptedTask::readMemory(std::uint64_t address, std::size_t size, std::byte* buffer) {
  if (size == 0) return KERN_SUCCESS;
  const std::uint64_t last = address + (size - 1);
  if (last < address) return KERN_INVALID_ADDRESS;
  const auto failing = failingReads_.lower_bound(address);
  if (failing != failingReads_.end() && failing->first <= last) return failing->second;
  if (pieceAt(address) == nullptr) return readReal(address, size, buffer);
  for (std::uint64_t at = address;;) {
    const auto* const piece = pieceAt(at);
    if (piece == nullptr) return KERN_INVALID_ADDRESS;
    const std::uint64_t pieceLast = piece->first + (piece->second.size() - 1);
    if (pieceLast >= last) break;
    at = pieceLast + 1;
  }
  for (std::size_t done = 0; done < size;) {
    const auto* const piece = pieceAt(address + done);
    const std::size_t offset = address + done - piece->first;
    const std::size_t part = std::min(size - done, piece->second.size() - offset);
    std::memcpy(buffer + done, piece->second.data() + offset, part);
    done += part;
  }
  return KERN_SUCCESS;
}

const ScriptedTask::Piece* ScriptedTask::pieceAt(std::uint64_t address) const {
  const auto next = memory_.upper_bound(address);
  if (next == memory_.begin()) return nullptr;
  const Piece& piece = *std::prev(next);
  return address - piece.first < piece.second.size() ? &piece : nullptr;
}

KernReturn ScriptedTask::readReal(std::uint64_t address, std::size_t size, std::byte* buffer) const {
  if (!readsRealMemory_) return KERN_INVALID_ADDRESS;
  const iovec local{buffer, size};
  const iovec remote{reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), size};
  const ssize_t got = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
  return got >= 0 && static_cast<std::size_t>(got) == size ? KERN_SUCCESS : KERN_INVALID_ADDRESS;
}

KernReturn ScriptedTask::task_info(TaskVmInfo* info) {
  const std::lock_guard lock(mutex_);
  if (const auto failure = scriptedFailure(TaskCall::task_info, 0))
    return record(TaskCall::task_info, *failure);
  info->phys_footprint = footprint_;
  return record(TaskCall::task_info, KERN_SUCCESS);
}

std::optional<double> ScriptedTask::processStartTimeMilliseconds() {
  const std::lock_guard lock(mutex_);
  return startTime_;
}

std::uint64_t ScriptedTask::addressMask() {
  const std::lock_guard lock(mutex_);
  return addressMask_;
}

ScriptedTask::ListedThread* ScriptedTask::find(ThreadPort port) {
  const auto found = std::ranges::find(threads_, port, &ListedThread::port);
  return found == threads_.end() ? nullptr : &*found;
}

std::optional<KernReturn> ScriptedTask::scriptedFailure(TaskCall call, ThreadPort thread) {
  for (Failure& failure : failures_) {
    if (failure.call != call || failure.spent || (failure.thread && *failure.thread != thread)) continue;
    if (failure.skip > 0) {
      --failure.skip;
      continue;
    }
    if (failure.times > 0 && --failure.times == 0) failure.spent = true;
    return failure.result;
  }
  return std::nullopt;
}

KernReturn ScriptedTask::record(TaskCall call, KernReturn result, ThreadPort thread, std::uint64_t address) {
  calls_.push_back({call, thread, address, result});
  return result;
}

}  // namespace qbv
