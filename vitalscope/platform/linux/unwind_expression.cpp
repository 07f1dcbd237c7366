#include "vitalscope/platform/linux/unwind_expression.h"

#include <array>
#include <cstddef>

namespace qbv::linux_backend {

namespace {

constexpr std::size_t kStackWords = 64;
constexpr int kMostOperations = 1000;

std::int64_t asSigned(std::uint64_t value) {
  return static_cast<std::int64_t>(value);
}
std::uint64_t asUnsigned(std::int64_t value) {
  return static_cast<std::uint64_t>(value);
}

class Evaluator {
 public:
  Evaluator(Extent expression, FrameInput& input)
      : expression_(expression), bytes_(expression), input_(input) {}

  std::uint64_t run(const std::uint64_t* initial) {
    if (initial != nullptr) push(*initial);
    for (int i = 0; i < kMostOperations && input_.status() == StepStatus::ok; ++i) {
      if (bytes_.atEnd()) return bytes_.ok() ? pop() : damaged();
      step(bytes_.u8());
    }
    return damaged();
  }

 private:
  void step(std::uint8_t op) {
    if (op >= 0x30 && op <= 0x4f) return push(op - 0x30U);
    if (op >= 0x70 && op <= 0x8f) return pushRegister(op - 0x70U);
    if (op >= 0x08 && op <= 0x11) return constant(op);
    if (op >= 0x12 && op <= 0x17) return shuffle(op);
    if (op >= 0x1a && op <= 0x2e && !isUnary(op) && op != 0x23 && op != 0x28) return binary(op);
    other(op);
  }

  static bool isUnary(std::uint8_t op) { return op == 0x19 || op == 0x1f || op == 0x20; }

  void constant(std::uint8_t op) {
    switch (op) {
      case 0x08:
        return push(bytes_.u8());
      case 0x09:
        return push(asUnsigned(bytes_.fixed<std::int8_t>()));
      case 0x0a:
        return push(bytes_.fixed<std::uint16_t>());
      case 0x0b:
        return push(asUnsigned(bytes_.fixed<std::int16_t>()));
      case 0x0c:
        return push(bytes_.fixed<std::uint32_t>());
      case 0x0d:
        return push(asUnsigned(bytes_.fixed<std::int32_t>()));
      case 0x10:
        return push(bytes_.uleb());
      case 0x11:
        return push(asUnsigned(bytes_.sleb()));
      default:
        return push(bytes_.fixed<std::uint64_t>());
    }
  }

  void shuffle(std::uint8_t op) {
    switch (op) {
      case 0x12:
        return push(peek(0));
      case 0x13:
        pop();
        return;
      case 0x14:
        return push(peek(1));
      case 0x15:
        return push(peek(bytes_.u8()));
      case 0x16: {
        const std::uint64_t first = pop(), second = pop();
        push(first);
        return push(second);
      }
      default: {
        const std::uint64_t first = pop(), second = pop(), third = pop();
        push(first);
        push(third);
        return push(second);
      }
    }
  }

  void binary(std::uint8_t op) {
    const std::uint64_t right = pop(), left = pop();
    push(op >= 0x29 ? std::uint64_t{compare(op, asSigned(left), asSigned(right))}
                    : arithmetic(op, left, right));
  }

  std::uint64_t arithmetic(std::uint8_t op, std::uint64_t left, std::uint64_t right) {
    switch (op) {
      case 0x1a:
        return left & right;
      case 0x1b:
        return divide(asSigned(left), asSigned(right));
      case 0x1c:
        return left - right;
      case 0x1d:
        return right == 0 ? damaged() : left % right;
      case 0x1e:
        return left * right;
      case 0x21:
        return left | right;
      case 0x22:
        return left + right;
      case 0x24:
        return right < 64 ? left << right : 0;
      case 0x25:
        return right < 64 ? left >> right : 0;
      case 0x26:
        return asUnsigned(asSigned(left) >> (right < 64 ? right : 63));
      default:
        return left ^ right;
    }
  }

  std::uint64_t divide(std::int64_t left, std::int64_t right) {
    if (right == 0) return damaged();
    return right == -1 ? std::uint64_t{0} - asUnsigned(left) : asUnsigned(left / right);
  }

  static bool compare(std::uint8_t op, std::int64_t left, std::int64_t right) {
    switch (op) {
      case 0x29:
        return left == right;
      case 0x2a:
        return left >= right;
      case 0x2b:
        return left > right;
      case 0x2c:
        return left <= right;
      case 0x2d:
        return left < right;
      default:
        return left != right;
    }
  }

  void other(std::uint8_t op) {
    switch (op) {
      case 0x03:
        return push(bytes_.fixed<std::uint64_t>());
      case 0x06:
        return push(input_.word(pop()));
      case 0x94:
        return push(input_.sized(pop(), bytes_.u8()));
      case 0x19:
        return push(magnitude(pop()));
      case 0x1f:
        return push(std::uint64_t{0} - pop());
      case 0x20:
        return push(~pop());
      case 0x23:
        return push(pop() + bytes_.uleb());
      case 0x28:
      case 0x2f:
        return branch(op);
      case 0x92:
        return pushRegister(bytes_.uleb());
      case 0x96:
        return;
      case 0xf1:
        return push(bytes_.pointer(bytes_.u8()));
      default:
        damaged();
    }
  }

  static std::uint64_t magnitude(std::uint64_t value) {
    return asSigned(value) < 0 ? std::uint64_t{0} - value : value;
  }

  // Unconditional, or when the top of the stack is not 0. The end of the expression is a fine target.
  void branch(std::uint8_t op) {
    const std::int16_t distance = bytes_.fixed<std::int16_t>();
    if (op == 0x28 && pop() == 0) return;
    const std::uint64_t target = bytes_.at() + asUnsigned(distance);
    if (!bytes_.ok() || !expression_.contains(target, 0)) {
      damaged();
      return;
    }
    bytes_ = ByteReader({target, expression_.end});
  }

  void pushRegister(std::uint64_t number) {
    const std::uint64_t offset = asUnsigned(bytes_.sleb());
    push(input_.registerValue(number) + offset);
  }

  void push(std::uint64_t value) {
    if (depth_ == kStackWords) {
      damaged();
      return;
    }
    stack_[depth_++] = value;
  }
  std::uint64_t peek(std::size_t below) { return below < depth_ ? stack_[depth_ - 1 - below] : damaged(); }
  std::uint64_t pop() { return depth_ == 0 ? damaged() : stack_[--depth_]; }

  std::uint64_t damaged() {
    input_.fail(StepStatus::damaged);
    return 0;
  }

  const Extent expression_;
  ByteReader bytes_;
  FrameInput& input_;
  std::size_t depth_ = 0;
  std::array<std::uint64_t, kStackWords> stack_;
};

}  // namespace

std::uint64_t FrameInput::registerValue(std::uint64_t number) {
  if (number >= kRegisterCount) {
    fail(StepStatus::damaged);
    return 0;
  }
  const auto index = static_cast<unsigned>(number);
  if (registers_.has(index)) return registers_.value[index];
  if (status_ == StepStatus::ok) missing_ = index;
  fail(StepStatus::needsRegister);
  return 0;
}

std::uint64_t FrameInput::sized(std::uint64_t address, std::uint8_t size) {
  std::uint64_t word = 0;
  if (size != 1 && size != 2 && size != 4 && size != 8) {
    fail(StepStatus::damaged);
  } else if (stack_.read(address, word)) {
    return size == 8 ? word : word & ((std::uint64_t{1} << (8U * size)) - 1);
  } else if (size < 8 && address % 8 + size <= 8 && stack_.read(address & ~std::uint64_t{7}, word)) {
    return (word >> (8 * (address % 8))) & ((std::uint64_t{1} << (8U * size)) - 1);
  } else {
    fail(StepStatus::unreadable);
  }
  return 0;
}

std::uint64_t evaluate(Extent expression, FrameInput& input, const std::uint64_t* initial) {
  return Evaluator(expression, input).run(initial);
}

}  // namespace qbv::linux_backend
