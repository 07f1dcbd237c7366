#include "tools/leaks/symbols.h"

#include <cxxabi.h>

#include <cstdlib>

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

std::string demangled(const char* symbol) {
  int status = 0;
  char* const text = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
  std::string name = status == 0 && text != nullptr ? text : symbol;
  std::free(text);
  return name.substr(0, name.find('@'));  // without the symbol's version
}

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
  return name != nullptr && offset < symbol.st_size ? demangled(name) : "";
}

}  // namespace leaks
