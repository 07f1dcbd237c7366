// Any bytes as an ELF file, and as a loaded object whose dynamic section and call-frame index lie at the
// start of the input: readers stay inside, and what comes out is a table in ascending order.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "vitalscope/platform/linux/function_table.h"

namespace {

using namespace qbv::linux_backend;

constexpr AddressRange kCode{0x1000, 0x100000};

void check(FunctionTable& table) {
  std::uint64_t last = 0;
  for (const FunctionEntry& entry : table.finish()) {
    if (!kCode.contains(entry.address) || entry.address <= last) std::abort();
    if (entry.name != FunctionEntry::kRedacted && entry.nameSize == 0) std::abort();
    last = entry.address;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const SpanSource source({data, size});
  ElfObject object;
  object.mapped = object.dynamic = object.frameHeader = {0, size};
  static_cast<void>(findBuildId({data, size}));
  static_cast<void>(isFileOf(source, object));
  object.buildId.size = 20;
  static_cast<void>(isFileOf(source, object));

  FunctionTable fromFile(kCode);
  if (const auto place = fileSymbols(source)) fromFile.addSymbols(source, *place);
  check(fromFile);

  FunctionTable loaded(kCode);
  if (const auto place = dynamicSymbols(source, object)) loaded.addSymbols(source, *place);
  functionStarts(source, object, loaded.starts());
  check(loaded);
  return 0;
}
