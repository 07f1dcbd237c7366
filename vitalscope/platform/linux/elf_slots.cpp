#include "vitalscope/platform/linux/elf_slots.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace qbv::linux_backend {

namespace {

#if defined(__x86_64__)
constexpr std::uint32_t kJumpSlot = R_X86_64_JUMP_SLOT;
constexpr std::uint32_t kDataSlot = R_X86_64_GLOB_DAT;
#elif defined(__aarch64__)
constexpr std::uint32_t kJumpSlot = R_AARCH64_JUMP_SLOT;
constexpr std::uint32_t kDataSlot = R_AARCH64_GLOB_DAT;
#endif

constexpr std::size_t kStubSize = 16;
using StubBytes = std::array<std::uint8_t, kStubSize>;

template <typename T>
T at(const StubBytes& bytes, std::size_t offset) {
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

}  // namespace

template <typename T>
std::span<const T> ElfSlots::table(std::uint64_t address, std::uint64_t bytes) const {
  if (address % alignof(T) != 0 || !object_.mapped.contains(address, bytes)) return {};
  return {reinterpret_cast<const T*>(address), static_cast<std::size_t>(bytes / sizeof(T))};
}

ElfSlots::ElfSlots(const ElfObject& object) : object_(object) {
  const DynamicFacts facts = dynamicFacts(HeldMemory(object.mapped), object);
  if (facts.symbols == 0 || facts.strings == 0) return;
  jumpTable_ = facts.jumpTable;
  relocations_ = table<ElfW(Rela)>(facts.relocations, facts.relocationsSize);
  relocations_ = relocations_.subspan(std::min<std::size_t>(facts.relativeCount, relocations_.size()));
  jumps_ = table<ElfW(Rela)>(facts.jumps, facts.jumpsSize);
  if (object.mapped.contains(facts.symbols))
    symbols_ = table<ElfW(Sym)>(facts.symbols, object.mapped.end - facts.symbols);
  strings_ = table<char>(facts.strings, facts.stringsSize);
}

bool ElfSlots::read(const ElfW(Rela) & relocation, ElfSlot& slot) const {
  const std::uint64_t type = ELF64_R_TYPE(relocation.r_info);
  const std::uint64_t symbol = ELF64_R_SYM(relocation.r_info);
  if (type != kJumpSlot && type != kDataSlot) return false;
  if (symbol == 0 || symbol >= symbols_.size() || relocation.r_offset % 8 != 0) return false;
  const std::uint64_t name = symbols_[symbol].st_name;
  if (name >= strings_.size()) return false;
  slot.name = strings_.data() + name;
  const std::size_t room = strings_.size() - name;
  const std::size_t size = strnlen(slot.name, room);
  if (size == room) return false;
  slot.nameSize = static_cast<std::uint32_t>(size);
  slot.address = relocation.r_offset;
  slot.lazy = type == kJumpSlot;
  for (slot.segment = 0; slot.segment < object_.dataCount; ++slot.segment) {
    const ElfSegment& data = object_.data[slot.segment];
    if (AddressRange{data.address, data.address + data.size}.contains(slot.address, 8)) return true;
  }
  return false;
}

// Linkers write either one stub per slot, which pushes the number of the slot's relocation, or one for all,
// which begins by pushing (or saving a register for) what the loader put behind the jump table's start.
bool ElfSlots::isBindingStub(std::uint64_t slot, std::uint64_t value) const {
  StubBytes bytes{};
  if (!object_.code.contains(value) || !object_.mapped.contains(value, kStubSize)) return false;
  std::memcpy(bytes.data(), reinterpret_cast<const void*>(value), kStubSize);
#if defined(__x86_64__)
  constexpr std::uint32_t kLandingPad = 0xfa1e0ff3;
  const std::size_t start = at<std::uint32_t>(bytes, 0) == kLandingPad ? 4 : 0;
  if (bytes[start] == 0x68) {  // push number
    const auto number = at<std::uint32_t>(bytes, start + 1);
    return number < jumps_.size() && object_.slide + jumps_[number].r_offset == slot;
  }
  for (const std::size_t push : {start, start + 2}) {  // push table+8(%rip), maybe behind push %r11
    if (bytes[push] != 0xff || bytes[push + 1] != 0x35) continue;
    const auto distance = static_cast<std::uint64_t>(std::int64_t{at<std::int32_t>(bytes, push + 2)});
    if (jumpTable_ != 0 && value + push + 6 + distance == jumpTable_ + 8) return true;
  }
  return false;
#else
  constexpr std::uint32_t kLandingPad = 0xd503245f;
  constexpr std::uint32_t kSaveRegisters = 0xa9bf7bf0;  // stp x16, x30, [sp, #-16]!
  static_cast<void>(slot);
  return at<std::uint32_t>(bytes, at<std::uint32_t>(bytes, 0) == kLandingPad ? 4 : 0) == kSaveRegisters;
#endif
}

}  // namespace qbv::linux_backend
