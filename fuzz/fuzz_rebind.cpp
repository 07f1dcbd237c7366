// Any bytes as an image: the rebinder writes nothing but its replacement, into whole words of the image, and
// comes to an end. And any bytes as a loaded ELF object: what is recorded of its slots holds together. Input:
// first byte even: an image, unslid address 0x10000 is its start. Odd: an ELF object whose dynamic section
// lies at the start and whose data begins at half its size.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "vitalscope/platform/linux/elf_definition.h"
#include "vitalscope/platform/linux/elf_slots.h"
#include "vitalscope/platform/linux/image_slots.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/profiler/qb_symbol_rebind.h"

namespace {

constexpr std::uint64_t kStart = 0x10000;

void require(bool condition) {
  if (!condition) std::abort();
}

void rebind(const std::uint8_t* data, std::size_t size) {
  const auto* const bytes = reinterpret_cast<const std::byte*>(data);
  std::vector<std::byte> content(bytes, bytes + size);
  qbv::ScriptedPlatform scripted;
  const std::uint32_t place = scripted.images.add(qbv::ScriptedImage(content, 0), "/usr/lib/libhostile.so");
  qbv::ScriptedImage& image = scripted.images.image(place);
  const auto start = reinterpret_cast<std::uint64_t>(image.header());
  void* replaced = nullptr;
  qb_rebinding request{"objc_msgSend", reinterpret_cast<void*>(0x1234567890abcdef), &replaced};
  const qb_rebindings_entry list{&request, 1, nullptr};
  qb_rebind_symbols_for_image(&list, static_cast<const qbv::mach_header_64*>(image.header()),
                              static_cast<std::intptr_t>(start - kStart));
  const auto* const after = reinterpret_cast<const std::uint8_t*>(image.bytes());
  for (std::size_t i = 0; i < size;) {
    if (after[i] == data[i]) {
      ++i;
      continue;
    }
    const std::size_t word = i & ~std::size_t{7};
    require(word + 8 <= size && std::memcmp(after + word, &request.replacement, 8) == 0);
    i = word + 8;
  }
}

void record(const std::uint8_t* data, std::size_t size) {
  using namespace qbv::linux_backend;
  std::vector<std::uint64_t> words(size / 8 + 1);
  std::memcpy(words.data(), data, size);
  const auto start = reinterpret_cast<std::uint64_t>(words.data());
  ElfObject object;
  object.slide = start - kStart;
  object.mapped = object.code = object.dynamic = {start, start + size};
  object.data[0] = {kStart + size / 2, size - size / 2, true};
  object.dataCount = 1;
  std::vector<std::uint64_t> block;
  const std::span<std::byte> bytes = buildImageSlots(object, false, [&block](std::size_t needed) -> void* {
    if (needed > 1U << 24) return nullptr;
    block.resize(needed / 8 + 2);
    return block.data();
  });
  require(bytes.size() <= block.size() * 8);
  ElfSlots(object).visit([&object](const ElfSlot& slot) {
    require(slot.address % 8 == 0 && slot.segment == 0 && slot.name[slot.nameSize] == '\0');
    require(slot.address >= object.data[0].address);
    ElfSlots(object).isBindingStub(slot.address, object.slide + slot.address);
  });
  const HeldMemory memory(object.mapped);
  const auto found = definitionIn(memory, object, "objc_msgSend");
  static_cast<void>(found);
  isStandInFor(memory, object, "objc_msgSend", start);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  ((data[0] & 1) == 0 ? rebind : record)(data + 1, size - 1);
  return 0;
}
