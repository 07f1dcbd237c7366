// Sends messages, with arguments and results of any type:
//
//   using namespace qbv::literals;
//   const double area = qbv::send<double>(shape, "areaInUnit:"_sel, unit);
#pragma once

#include <algorithm>
#include <cstddef>
#include <type_traits>

#include "vitalscope/platform/objc.h"

namespace qbv {

namespace detail {
template <std::size_t N>
struct SelectorText {
  char text[N];
  consteval SelectorText(const char (&literal)[N]) { std::copy_n(literal, N, text); }
};

// Whether a result goes to memory that the caller provides. Does not see that a class is packed, or holds one
// vector of more than 16 bytes and nothing else: such results cannot be sent for.
template <class R>
constexpr bool returnedInMemory() {
#if defined(__x86_64__)
  if constexpr (std::is_class_v<R> || std::is_union_v<R>)
    return sizeof(R) > 16 || !std::is_trivially_copy_constructible_v<R> ||
           !std::is_trivially_move_constructible_v<R> || !std::is_trivially_destructible_v<R>;
#endif
  return false;
}

// Whether a message to nil leaves an R of zeros where results are returned.
template <class R>
constexpr bool nilAnswers() {
  return std::is_void_v<R> || std::is_integral_v<R> || std::is_enum_v<R> || std::is_pointer_v<R> ||
         std::is_same_v<R, float> || std::is_same_v<R, double>;
}
}  // namespace detail

namespace literals {
// The selector, looked up once.
template <detail::SelectorText name>
SEL operator""_sel() {
  static const SEL selector = selectorNamed(name.text);
  return selector;
}
}  // namespace literals

// Sends a message through the caller's own import of objc_msgSend, so that what redirects it sees this send.
// R and Args must be the types that the method was defined with: arguments are passed as they are, without
// conversion, and by value. For a method of variable arguments cast objc_msgSend instead. nil gives R(); an
// object without such a method ends the process. Throws what the method throws. Where it is not known whether
// the receiver answers, use the send of runtime.h, which checks.
template <class R = void, class... Args>
R send(id receiver, SEL selector, Args... args) {
  if constexpr (!detail::nilAnswers<R>())
    if (receiver == nullptr) return R();
  using Function = R (*)(id, SEL, Args...);
#if defined(__x86_64__)
  if constexpr (detail::returnedInMemory<R>())
    return reinterpret_cast<Function>(reinterpret_cast<IMP>(objc_msgSend_stret))(receiver, selector, args...);
  else
#endif
    return reinterpret_cast<Function>(reinterpret_cast<IMP>(objc_msgSend))(receiver, selector, args...);
}

}  // namespace qbv
