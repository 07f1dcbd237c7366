#include "vitalscope/platform/linux/image_slots.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <vector>

#include "vitalscope/platform/linux/elf_slots.h"
#include "vitalscope/platform/linux/image_description.h"

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kWord = sizeof(std::uint64_t);
constexpr std::uint64_t kMostWordsPerSlot = 64;
constexpr std::size_t kKinds = 2;

// The slots of one kind in one segment.
struct Group {
  std::uint64_t low = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t high = 0;  // the last one
  std::uint64_t count = 0;
  std::uint64_t strings = 0;
  std::size_t section = 0;

  std::uint64_t words() const { return count == 0 ? 0 : (high - low) / kWord + 1; }
  bool dense() const { return count != 0 && words() / kMostWordsPerSlot <= count; }
};

constexpr std::size_t kGroups = kKinds * std::tuple_size_v<decltype(ElfObject::data)>;

class Builder {
 public:
  Builder(const ElfObject& object, bool executable) : object_(object), executable_(executable) {
    const ElfSlots table(object);
    slots_.reserve(table.most());
    table.visit([this](const ElfSlot& slot) {
      slots_.push_back(slot);
      Group& group = groupOf(slot);
      group.low = std::min(group.low, slot.address);
      group.high = std::max(group.high, slot.address);
      ++group.count;
      group.strings += slot.nameSize + 2U;
    });
    layOut();
  }

  bool fits() const { return size_ <= std::numeric_limits<std::uint32_t>::max(); }
  std::size_t size() const { return size_; }

  void write(std::span<std::byte> block) {
    auto* const indirect = reinterpret_cast<std::uint32_t*>(block.data() + described_.indirect);
    std::fill_n(indirect, described_.indirectCount, INDIRECT_SYMBOL_LOCAL);
    auto* const symbols = reinterpret_cast<nlist_64*>(block.data() + symbols_.symbols);
    auto* const strings = reinterpret_cast<char*>(block.data() + symbols_.strings);
    std::uint32_t next = 1;
    std::uint32_t number = 0;
    for (const ElfSlot& slot : slots_) {
      const Group& group = groupOf(slot);
      if (!group.dense()) continue;
      const std::uint32_t end = next + slot.nameSize + 2;
      const DescribedSlots::Section& section = sections_[group.section];
      indirect[section.first + (slot.address - group.low) / kWord] = number;
      symbols[number++] = {next, 0, 0, 0, 0};
      strings[next] = '_';
      std::memcpy(strings + next + 1, slot.name, slot.nameSize);
      strings[end - 1] = '\0';
      next = end;
    }
    strings[0] = '\0';
    writeDescription(object_, executable_, block, {&symbols_, false, &described_});
  }

 private:
  Group& groupOf(const ElfSlot& slot) { return groups_[kKinds * slot.segment + (slot.lazy ? 1 : 0)]; }

  void layOut() {
    std::uint64_t symbols = 0;
    std::uint64_t strings = 1;
    std::uint64_t indirect = 0;
    for (std::size_t i = 0; i < kGroups; ++i) {
      Group& group = groups_[i];
      if (!group.dense()) continue;
      group.section = count_;
      sections_[count_++] = {static_cast<std::uint32_t>(i / kKinds), i % kKinds == 1, group.low,
                             group.words(), static_cast<std::uint32_t>(indirect)};
      symbols += group.count;
      strings += group.strings;
      indirect += group.words();
    }
    described_.sections = {sections_.data(), count_};
    const std::uint64_t start =
        (descriptionSize(object_, {&symbols_, false, &described_}) + 15) & ~std::uint64_t{15};
    const std::uint64_t table = start + symbols * sizeof(nlist_64);
    const std::uint64_t text = table + indirect * sizeof(std::uint32_t);
    size_ = text + strings;
    symbols_ = {static_cast<std::uint32_t>(start), static_cast<std::uint32_t>(symbols),
                static_cast<std::uint32_t>(text), static_cast<std::uint32_t>(strings)};
    described_.indirect = static_cast<std::uint32_t>(table);
    described_.indirectCount = static_cast<std::uint32_t>(indirect);
  }

  const ElfObject& object_;
  bool executable_;
  std::vector<ElfSlot> slots_;
  std::array<Group, kGroups> groups_;
  std::array<DescribedSlots::Section, kGroups> sections_;
  std::size_t count_ = 0;
  DescribedSymbols symbols_;
  DescribedSlots described_;
  std::uint64_t size_ = 0;
};

}  // namespace

std::span<std::byte> buildImageSlots(const ElfObject& object, bool executable,
                                     const std::function<void*(std::size_t)>& take) {
  Builder builder(object, executable);
  if (!builder.fits()) return {};
  auto* const block = static_cast<std::byte*>(take(builder.size()));
  if (block == nullptr) return {};
  const std::span<std::byte> bytes(block, builder.size());
  builder.write(bytes);
  return bytes;
}

}  // namespace qbv::linux_backend
