#include <cstring>

#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"

qbv::ThreadPort qbthread_self() {
  qbv::Task& task = qbv::platform().task;
  const qbv::ThreadPort self = task.mach_thread_self();
  task.mach_port_deallocate(self);
  return self;
}

bool qbv_fillThreadStateIntoMachineContext(qbv::ThreadPort thread, qbv_machine_context* context) {
  return qbv::platform().task.thread_get_state(thread, &context->thread_state) == qbv::KERN_SUCCESS;
}

std::uint64_t qbv_mach_instructionAddress(const qbv_machine_context* context) {
  return context->thread_state.pc;
}

std::uint64_t qbv_mach_linkRegister(const qbv_machine_context* context) {
  return context->thread_state.lr;
}

std::uint64_t qbv_mach_framePointer(const qbv_machine_context* context) {
  return context->thread_state.fp;
}

qbv::KernReturn qbv_mach_copyMem(const void* source, void* destination, std::size_t size) {
  return qbv::platform().task.vm_read_overwrite(reinterpret_cast<std::uintptr_t>(source), size, destination,
                                                nullptr);
}

const char* qbv_lastPathEntry(const char* path) {
  if (path == nullptr) return nullptr;
  const char* const slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

int safe_strcmp(const char* left, const char* right) {
  return left == nullptr || right == nullptr ? 1 : std::strcmp(left, right);
}
