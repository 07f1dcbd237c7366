#include "tools/sample/stack_reader.h"

#include <dwarf.h>

#include <algorithm>

#include "tools/tracer/symbol_name.h"

namespace sample {

namespace {

constexpr std::size_t kMostFrames = 512;

std::string lastError(const char* what) {
  return std::string(what) + ": " + dwfl_errmsg(-1);
}

int addFrame(Dwfl_Frame* frame, void* argument) {
  Chain& chain = *static_cast<Chain*>(argument);
  Dwarf_Addr pc = 0;
  bool isActivation = false;
  if (!dwfl_frame_pc(frame, &pc, &isActivation)) return DWARF_CB_ABORT;
  chain.push_back(isActivation ? pc : pc - 1);
  return chain.size() < kMostFrames ? DWARF_CB_OK : DWARF_CB_ABORT;
}

std::string fileName(const char* path) {
  const std::string text = path != nullptr ? path : "";
  return text.substr(text.rfind('/') + 1);
}

int addImage(Dwfl_Module* module, void**, const char* name, Dwarf_Addr, void* argument) {
  ImageFacts facts;
  const char* file = nullptr;
  dwfl_module_info(module, nullptr, &facts.begin, &facts.end, nullptr, nullptr, &file, nullptr);
  facts.path = file != nullptr ? file : name;
  // The bias has to be known before the build id can be read.
  GElf_Addr bias = 0;
  const bool isImage = dwfl_module_getelf(module, &bias) != nullptr;
  const unsigned char* bits = nullptr;
  GElf_Addr address = 0;
  for (int i = 0, count = dwfl_module_build_id(module, &bits, &address); i < count; ++i) {
    constexpr char digits[] = "0123456789abcdef";
    facts.buildId += digits[bits[i] >> 4];
    facts.buildId += digits[bits[i] & 15];
  }
  // Fonts, locales and other files are mapped too.
  if (isImage || !facts.buildId.empty())
    static_cast<std::vector<ImageFacts>*>(argument)->push_back(std::move(facts));
  return DWARF_CB_OK;
}

}  // namespace

std::string StackReader::open() {
  images_ = tracer::noImages();
  if (images_ == nullptr) return lastError("cannot prepare");
  if (std::string failure = report(); !failure.empty()) return failure;
  if (dwfl_linux_proc_attach(images_.get(), process_, true) != 0) return lastError("cannot read the process");
  return "";
}

std::string StackReader::report() {
  return tracer::addImagesOf(images_.get(), process_) ? "" : lastError("cannot list the process's libraries");
}

Chain StackReader::chainOf(pid_t thread) {
  Chain chain;
  dwfl_getthread_frames(images_.get(), thread, addFrame, &chain);
  metUnknownCode_ =
      metUnknownCode_ || (!chain.empty() && dwfl_addrmodule(images_.get(), chain.back()) == nullptr);
  std::reverse(chain.begin(), chain.end());
  return chain;
}

void StackReader::refresh() {
  if (!metUnknownCode_) return;
  metUnknownCode_ = false;
  report();
}

FunctionName StackReader::nameOf(std::uint64_t address) {
  FunctionName name;
  Dwfl_Module* const module = dwfl_addrmodule(images_.get(), address);
  name.imageOffset = address;
  if (module == nullptr) return name;
  Dwarf_Addr begin = 0;
  const char* file = nullptr;
  const char* const moduleName =
      dwfl_module_info(module, nullptr, &begin, nullptr, nullptr, nullptr, &file, nullptr);
  name.image = fileName(file != nullptr ? file : moduleName);
  name.imageOffset = address - begin;
  GElf_Off offset = 0;
  GElf_Sym symbol;
  const char* const function =
      dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
  // Past a sized symbol's end lies another function whose name is not known.
  if (function != nullptr && (symbol.st_size == 0 || offset < symbol.st_size))
    name.function = tracer::readableName(function);
  return name;
}

std::vector<ImageFacts> StackReader::images() {
  std::vector<ImageFacts> images;
  dwfl_getmodules(images_.get(), addImage, &images, 0);
  std::sort(images.begin(), images.end(),
            [](const ImageFacts& a, const ImageFacts& b) { return a.begin < b.begin; });
  return images;
}

}  // namespace sample
