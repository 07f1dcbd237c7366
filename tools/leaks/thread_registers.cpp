#include <elf.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>

#include <cstring>

#include "tools/leaks/process_reader.h"

namespace leaks {

namespace {

// The words of one set of registers; empty when the machine has no such set.
std::vector<std::uint64_t> registerSet(pid_t thread, unsigned kind) {
  std::vector<std::uint64_t> words(2048);
  iovec all{words.data(), words.size() * sizeof(std::uint64_t)};
  if (ptrace(PTRACE_GETREGSET, thread, kind, &all) != 0) all.iov_len = 0;
  words.resize(all.iov_len / sizeof(std::uint64_t));
  return words;
}

}  // namespace

Thread readThread(pid_t thread) {
  Thread result;
  result.id = thread;
  result.registers = registerSet(thread, NT_PRSTATUS);
  if (result.registers.empty()) return result;
#if defined(__x86_64__)
  constexpr unsigned kVectors = NT_X86_XSTATE;
  result.stackPointer = result.registers[offsetof(user_regs_struct, rsp) / 8];
  result.threadPointer = result.registers[offsetof(user_regs_struct, fs_base) / 8];
#elif defined(__aarch64__)
  constexpr unsigned kVectors = NT_PRFPREG;
  result.stackPointer = result.registers[31];
  if (const auto own = registerSet(thread, NT_ARM_TLS); !own.empty()) result.threadPointer = own[0];
#else
#error "the registers of this machine are not known"
#endif
  const std::vector<std::uint64_t> vectors = registerSet(thread, kVectors);
  result.registers.insert(result.registers.end(), vectors.begin(), vectors.end());
  return result;
}

}  // namespace leaks
