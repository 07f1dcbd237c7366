#include "vitalscope/platform/linux/unwind_program.h"

namespace qbv::linux_backend {

namespace {

constexpr std::size_t kRememberedRows = 16;

class Interpreter {
 public:
  Interpreter(const FrameEntry& entry, std::uint64_t pc, Row& row)
      : common_(entry.common), pc_(pc), location_(entry.code.begin), row_(row) {}

  // Runs until the program ends or the location passes pc.
  bool run(Extent program, const Row* initial) {
    initial_ = initial;
    remembered_ = 0;
    ByteReader bytes(program);
    while (!bytes.atEnd() && location_ <= pc_) {
      if (!step(bytes)) return false;
    }
    return bytes.ok();
  }

 private:
  bool step(ByteReader& bytes) {
    const std::uint8_t byte = bytes.u8();
    const std::uint8_t low = byte & 0x3f;
    switch (byte >> 6) {
      case 1:
        advance(low);
        return true;
      case 2:
        setOffset(low, bytes.uleb());
        return true;
      case 3:
        return restore(low);
      default:
        return low <= 0x05 ? move(low, bytes) : plain(low, bytes);
    }
  }

  bool move(std::uint8_t operation, ByteReader& bytes) {
    switch (operation) {
      case 0x00:  // nop
        return true;
      case 0x01:  // set_loc
        location_ = bytes.pointer(common_.pointerEncoding);
        return (common_.pointerEncoding & kPointerIndirect) == 0;
      case 0x02:
        advance(bytes.u8());
        return true;
      case 0x03:
        advance(bytes.fixed<std::uint16_t>());
        return true;
      case 0x04:
        advance(bytes.fixed<std::uint32_t>());
        return true;
      default: {  // offset_extended
        const std::uint64_t number = bytes.uleb();
        setOffset(number, bytes.uleb());
        return true;
      }
    }
  }

  bool plain(std::uint8_t operation, ByteReader& bytes) {
    switch (operation) {
      case 0x0a:
        return remember();
      case 0x0b:
        return recall();
      case 0x0c:
      case 0x0d:
      case 0x0e:
      case 0x0f:
      case 0x12:
      case 0x13:
        return frameRule(operation, bytes);
      case 0x2d:  // the return address's signing state toggles: the mask takes the code off either way
        return true;
      case 0x2e:  // the size of pushed arguments
        bytes.uleb();
        return true;
      default:
        return registerRule(operation, bytes);
    }
  }

  bool frameRule(std::uint8_t operation, ByteReader& bytes) {
    switch (operation) {
      case 0x0c:  // def_cfa
        row_.frameRegister = bytes.uleb();
        return setFrame(RuleKind::frameRelative, static_cast<std::int64_t>(bytes.uleb()));
      case 0x0d:  // def_cfa_register
        row_.frameRegister = bytes.uleb();
        return row_.frame.kind == RuleKind::frameRelative;
      case 0x0e:  // def_cfa_offset
        return row_.frame.kind == RuleKind::frameRelative &&
               setFrame(RuleKind::frameRelative, static_cast<std::int64_t>(bytes.uleb()));
      case 0x12:  // def_cfa_sf
        row_.frameRegister = bytes.uleb();
        return setFrame(RuleKind::frameRelative, scaled(bytes.sleb()));
      case 0x13:  // def_cfa_offset_sf
        return row_.frame.kind == RuleKind::frameRelative &&
               setFrame(RuleKind::frameRelative, scaled(bytes.sleb()));
      default:  // def_cfa_expression
        row_.frame = expressionRule(RuleKind::computed, bytes);
        return bytes.ok();
    }
  }

  bool registerRule(std::uint8_t operation, ByteReader& bytes) {
    const std::uint64_t number = bytes.uleb();
    switch (operation) {
      case 0x06:
        return restore(number);
      case 0x07:
        return set(number, {0, 0, RuleKind::undefined});
      case 0x08:
        return set(number, {0, 0, RuleKind::same});
      case 0x09:
        return set(number, {static_cast<std::int64_t>(bytes.uleb()), 0, RuleKind::inRegister});
      case 0x10:
        return set(number, expressionRule(RuleKind::savedAt, bytes));
      case 0x11:  // offset_extended_sf
        return set(number, {scaled(bytes.sleb()), 0, RuleKind::saved});
      case 0x14:  // val_offset
        return set(number, {scaled(bytes.uleb()), 0, RuleKind::frameRelative});
      case 0x15:  // val_offset_sf
        return set(number, {scaled(bytes.sleb()), 0, RuleKind::frameRelative});
      case 0x16:
        return set(number, expressionRule(RuleKind::computed, bytes));
      case 0x2f:  // negative_offset_extended
        return set(number, {scaled(0 - bytes.uleb()), 0, RuleKind::saved});
      default:
        return false;
    }
  }

  void advance(std::uint64_t units) { location_ += units * common_.codeAlignment; }

  // Wraps instead of overflowing: the factors may be garbage.
  std::int64_t scaled(std::uint64_t factor) const {
    return static_cast<std::int64_t>(factor * static_cast<std::uint64_t>(common_.dataAlignment));
  }
  std::int64_t scaled(std::int64_t factor) const { return scaled(static_cast<std::uint64_t>(factor)); }

  Rule expressionRule(RuleKind kind, ByteReader& bytes) {
    const Extent block = bytes.block(bytes.uleb());
    if (block.size() > UINT32_MAX) bytes.fail();
    return {static_cast<std::int64_t>(block.begin), static_cast<std::uint32_t>(block.size()), kind};
  }

  bool setFrame(RuleKind kind, std::int64_t offset) {
    row_.frame = {offset, 0, kind};
    return true;
  }

  bool set(std::uint64_t number, Rule rule) {
    if (number < kRegisterCount) row_.rules[number] = rule;
    return true;
  }

  void setOffset(std::uint64_t number, std::uint64_t factor) {
    set(number, {scaled(factor), 0, RuleKind::saved});
  }

  bool restore(std::uint64_t number) {
    if (number >= kRegisterCount) return true;
    row_.rules[number] = initial_ != nullptr ? initial_->rules[number] : Rule{};
    return true;
  }

  bool remember() {
    if (remembered_ == kRememberedRows) return false;
    stack_[remembered_++] = row_;
    return true;
  }

  bool recall() {
    if (remembered_ == 0) return false;
    row_ = stack_[--remembered_];
    return true;
  }

  const CommonEntry& common_;
  const std::uint64_t pc_;
  std::uint64_t location_;
  Row& row_;
  const Row* initial_ = nullptr;
  std::size_t remembered_ = 0;
  std::array<Row, kRememberedRows> stack_;
};

}  // namespace

bool rulesAt(const FrameEntry& entry, std::uint64_t pc, Row& row) {
  row = {};
  Interpreter interpreter(entry, pc, row);
  if (!interpreter.run(entry.common.program, nullptr)) return false;
  const Row initial = row;
  if (!interpreter.run(entry.program, &initial)) return false;
  return row.frame.kind != RuleKind::unspecified;
}

}  // namespace qbv::linux_backend
