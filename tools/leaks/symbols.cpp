#include "tools/leaks/symbols.h"

#include "tools/tracer/symbol_name.h"

namespace leaks {

namespace {

constexpr std::size_t kMostLookUps = 4000;

}  // namespace

bool Symbols::open() {
  if (!isTried_) {
    isTried_ = true;
    images_ = tracer::noImages();
    if (images_ != nullptr) tracer::addImagesOf(images_.get(), process_);
  }
  return images_ != nullptr;
}

const std::string& Symbols::nameOf(Address address) {
  static const std::string unknown;
  if (const auto found = known_.find(address); found != known_.end()) return found->second;
  if (known_.size() >= kMostLookUps || !open()) return unknown;
  return known_[address] = lookUp(address);
}

std::string Symbols::lookUp(Address address) {
  Dwfl_Module* const module = dwfl_addrmodule(images_.get(), address);
  GElf_Off offset = 0;
  GElf_Sym symbol;
  const char* const name =
      module == nullptr ? nullptr
                        : dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
  // Past a symbol's end lies something else whose name is not known.
  return name != nullptr && offset < symbol.st_size ? tracer::readableName(name) : "";
}

}  // namespace leaks
