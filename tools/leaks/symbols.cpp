#include "tools/leaks/symbols.h"

#include <cstdlib>

#include "tools/tracer/symbol_name.h"

namespace leaks {

namespace {

constexpr std::size_t kMostLookUps = 4000;

char* noDebugPath = nullptr;
const Dwfl_Callbacks callbacks = {
    .find_elf = dwfl_linux_proc_find_elf,
    .find_debuginfo = dwfl_standard_find_debuginfo,
    .section_address = dwfl_offline_section_address,
    .debuginfo_path = &noDebugPath,
};

}  // namespace

Symbols::~Symbols() {
  if (dwfl_ != nullptr) dwfl_end(dwfl_);
}

bool Symbols::open() {
  if (!isTried_) {
    isTried_ = true;
    unsetenv("DEBUGINFOD_URLS");  // nothing is looked up over the network
    dwfl_ = dwfl_begin(&callbacks);
    if (dwfl_ != nullptr) dwfl_linux_proc_report(dwfl_, process_);
    if (dwfl_ != nullptr) dwfl_report_end(dwfl_, nullptr, nullptr);
  }
  return dwfl_ != nullptr;
}

const std::string& Symbols::nameOf(Address address) {
  static const std::string unknown;
  if (const auto found = known_.find(address); found != known_.end()) return found->second;
  if (known_.size() >= kMostLookUps || !open()) return unknown;
  return known_[address] = lookUp(address);
}

std::string Symbols::lookUp(Address address) {
  Dwfl_Module* const module = dwfl_addrmodule(dwfl_, address);
  GElf_Off offset = 0;
  GElf_Sym symbol;
  const char* const name =
      module == nullptr ? nullptr
                        : dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
  // Past a symbol's end lies something else whose name is not known.
  return name != nullptr && offset < symbol.st_size ? tracer::readableName(name) : "";
}

}  // namespace leaks
