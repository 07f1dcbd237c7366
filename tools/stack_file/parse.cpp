#include <algorithm>
#include <cstring>
#include <map>
#include <utility>

#include "tools/stack_file/stack_file.h"
#include "vitalscope/memory/QBStackHighSpeedLogger.h"

namespace qbv::stack_file {
namespace {

constexpr std::size_t kSlotsAtStart = 500;

// The number of slots that the writer gave the file: the smallest that holds those which are there.
std::size_t capacityFor(std::size_t slots) {
  std::size_t capacity = kSlotsAtStart;
  while (capacity < slots) capacity *= 2;
  return capacity;
}

bool isPlausible(const StackSlot& slot) {
  if (slot.depth == 0 || slot.depth > qb_stack_max_depth) return false;
  return std::all_of(slot.frames, slot.frames + slot.depth, [](std::uint64_t address) {
    return address != 0 && address < std::uint64_t{1} << 56;  // the widest user addresses that machines have
  });
}

Stack stackOf(const StackSlot& slot) {
  return {slot.stack_id, slot.count, slot.size, slot.alloc_type, {slot.frames, slot.frames + slot.depth}};
}

class Reader {
 public:
  explicit Reader(std::string_view bytes)
      : bytes_(bytes),
        slots_(bytes.size() / sizeof(StackSlot)),
        capacity_(capacityFor(std::max<std::size_t>(slots_, 1))) {}

  void readAll() {
    for (std::size_t index = 0; index < slots_; ++index) {
      StackSlot slot;
      std::memcpy(&slot, bytes_.data() + index * sizeof slot, sizeof slot);
      if (slot.count == 0) continue;
      if (isPlausible(slot))
        keep(index, slot);
      else
        ++implausible_;
    }
  }

  bool looksLikeNoise() const { return implausible_ > chosen_.size(); }

  Contents contents() const {
    Contents result{slots_, {}, problems()};
    std::map<std::size_t, const Stack*> inOrder;
    for (const auto& [id, choice] : chosen_) inOrder.emplace(choice.index, &choice.stack);
    for (const auto& [index, stack] : inOrder) result.stacks.push_back(*stack);
    return result;
  }

 private:
  struct Choice {
    std::size_t index;
    std::size_t distance;  // from the stack's home
    Stack stack;
  };

  // The writer takes the first slot with the id that it meets on its way from the stack's home.
  void keep(std::size_t index, const StackSlot& slot) {
    const std::size_t home = slot.stack_id % (capacity_ - 1);
    const std::size_t distance = (index + capacity_ - home) % capacity_;
    const auto [found, isNew] = chosen_.try_emplace(slot.stack_id, Choice{index, distance, stackOf(slot)});
    if (isNew) return;
    ++olderCopies_;
    if (distance < found->second.distance) found->second = {index, distance, stackOf(slot)};
  }

  std::vector<std::string> problems() const {
    std::vector<std::string> result;
    if (bytes_.size() != capacity_ * sizeof(StackSlot))
      result.push_back("the file is cut short: it has " + std::to_string(bytes_.size()) + " of " +
                       std::to_string(capacity_ * sizeof(StackSlot)) + " bytes");
    if (implausible_ != 0)
      result.push_back("slots that make no sense were left out: " + std::to_string(implausible_));
    if (olderCopies_ != 0)
      result.push_back("older copies of stacks were left out: " + std::to_string(olderCopies_));
    return result;
  }

  std::string_view bytes_;
  std::size_t slots_;
  std::size_t capacity_;
  std::size_t implausible_ = 0;
  std::size_t olderCopies_ = 0;
  std::map<std::uint64_t, Choice> chosen_;
};

}  // namespace

std::optional<Contents> parse(std::string_view bytes, std::string& error) {
  if (bytes.empty()) {
    error = "is empty: no stack file, or its process could not reserve the disk space";
    return std::nullopt;
  }
  if (bytes.size() < sizeof(StackSlot)) {
    error = "is no stack file: " + std::to_string(bytes.size()) + " bytes are less than one slot";
    return std::nullopt;
  }
  Reader reader(bytes);
  reader.readAll();
  if (reader.looksLikeNoise()) {
    error = "is no stack file, or is damaged: most of its slots make no sense";
    return std::nullopt;
  }
  return reader.contents();
}

}  // namespace qbv::stack_file
