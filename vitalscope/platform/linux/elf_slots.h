// The pointer slots through which a loaded ELF object reaches functions and data of others.
#pragma once

#include <cstdint>
#include <span>

#include "vitalscope/platform/linux/elf_object.h"
#include "vitalscope/platform/linux/elf_tables.h"

namespace qbv::linux_backend {

struct ElfSlot {
  std::uint64_t address = 0;  // without the slide; a multiple of 8
  std::uint32_t segment = 0;  // index of the writable segment that holds it
  bool lazy = false;  // calls go through it, and it may be bound at the first; otherwise bound at load
  const char* name = nullptr;
  std::uint32_t nameSize = 0;
};

// Reads the relocation, symbol and string tables where they lie in memory: use it only while the object
// cannot vanish. Nothing outside of object.mapped is touched; entries that make no sense are left out. Slots
// whose function a resolver of the object itself chooses have no symbol and do not appear.
class ElfSlots {
 public:
  explicit ElfSlots(const ElfObject& object);

  // No more than so many slots.
  std::size_t most() const { return relocations_.size() + jumps_.size(); }
  // Each slot, in the order of the tables: take(const ElfSlot&).
  template <typename Take>
  void visit(Take take) const {
    for (const std::span<const ElfW(Rela)> table : {relocations_, jumps_}) {
      for (const ElfW(Rela) & relocation : table) {
        ElfSlot slot;
        if (read(relocation, slot)) take(slot);
      }
    }
  }

  // Whether an unbound slot holds this: the address in the object's code that asks the loader to bind the
  // slot at `slot` (both in memory).
  bool isBindingStub(std::uint64_t slot, std::uint64_t value) const;

 private:
  template <typename T>
  std::span<const T> table(std::uint64_t address, std::uint64_t bytes) const;
  bool read(const ElfW(Rela) & relocation, ElfSlot& slot) const;

  const ElfObject& object_;
  std::uint64_t jumpTable_ = 0;
  std::span<const ElfW(Rela)> relocations_;
  std::span<const ElfW(Rela)> jumps_;
  std::span<const ElfW(Sym)> symbols_;  // as many as fit: their number is not written down
  std::span<const char> strings_;
};

}  // namespace qbv::linux_backend
