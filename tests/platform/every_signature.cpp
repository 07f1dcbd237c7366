#include "tests/platform/every_signature.h"

#include <gtest/gtest.h>

#include <array>
#include <complex>
#include <cstdarg>
#include <cstdint>
#include <cstring>

namespace qbv::tests {

namespace {

struct Small {
  std::int64_t whole;
  double part;
};
struct Large {
  std::array<std::int64_t, 9> values;
};
__extension__ using WideInteger = __int128;
__extension__ using ExtendedPair = _Complex long double;  // comes back in two x87 registers

std::int64_t integers(id, SEL, std::int64_t a, std::int64_t b, std::int64_t c, std::int64_t d) {
  return a + 10 * b + 100 * c + 1000 * d;
}
double floats(id, SEL, double a, float b, double c, float d, double e, float f, double g, float h) {
  return a + 10 * b + 1e2 * c + 1e3 * d + 1e4 * e + 1e5 * f + 1e6 * g + 1e7 * h;
}
// 20 words and 12 floating-point values: most are on the stack.
double crowd(id, SEL, std::array<std::int64_t, 16> words, int a, double b, int c, double d, int e, double f,
             double g, double h, double i, double j, double k, double l, double m, int n, int o,
             long double p) {
  double sum = 0;
  for (std::size_t at = 0; at < words.size(); ++at)
    sum += static_cast<double>(words[at]) * static_cast<double>(at + 1);
  return sum + a + b * 2 + c * 3 + d * 4 + e * 5 + f * 6 + g * 7 + h * 8 + i * 9 + j * 10 + k * 11 + l * 12 +
         m * 13 + n * 14 + o * 15 + static_cast<double>(p) * 16;
}
// al counts the vector registers of a call with variable arguments; prologues store those only if it is not
// 0.
double variable(id, SEL, int count, ...) {
  va_list rest;
  va_start(rest, count);
  double sum = 0;
  for (int i = 0; i < count; ++i) sum += va_arg(rest, double) * va_arg(rest, int);
  va_end(rest);
  return sum;
}
long double extended(id, SEL, long double value) {
  return value / 3;
}
ExtendedPair extendedPair(id, SEL, long double value) {
  ExtendedPair both;
  __real__ both = value / 3;
  __imag__ both = value / 7;
  return both;
}
std::complex<double> pair(id, SEL, double value) {
  return {value, -value};
}
Small small(id, SEL, std::int64_t whole, double part) {
  return {whole, part};
}
Large large(id self, SEL, std::int64_t first, double second) {
  return {{first, static_cast<std::int64_t>(second), reinterpret_cast<std::int64_t>(self), 3, 4, 5, 6, 7, 8}};
}
WideInteger wideInteger(id, SEL, WideInteger value) {
  return value * 3;
}

// Leaves room for differences, and yet uses the stack and calls something that uses vector registers.
int deep(id self, SEL selector, IMP send, int levels) {
  std::array<char, 96> text{};
  std::memset(text.data(), levels, text.size());
  if (levels == 0) return 0;
  return 1 + reinterpret_cast<int (*)(id, SEL, IMP, int)>(send)(self, selector, send, levels - 1) +
         (text[95] - static_cast<char>(levels));
}

#if defined(__x86_64__)
using Vector32 [[gnu::vector_size(32)]] = std::int64_t;
using Vector64 [[gnu::vector_size(64)]] = std::int64_t;

[[gnu::target("avx2")]] Vector32 vector32(id, SEL, Vector32 a, Vector32 b, Vector32 c, Vector32 d, Vector32 e,
                                          Vector32 f, Vector32 g, Vector32 h) {
  return a + 2 * b + 3 * c + 4 * d + 5 * e + 6 * f + 7 * g + 8 * h;
}
[[gnu::target("avx512f,avx512dq")]] Vector64 vector64(id, SEL, Vector64 a, Vector64 b, Vector64 c, Vector64 d,
                                                      Vector64 e, Vector64 f, Vector64 g, Vector64 h) {
  return a + 2 * b + 3 * c + 4 * d + 5 * e + 6 * f + 7 * g + 8 * h;
}

[[gnu::target("avx2")]] Vector32 from32(std::int64_t n) {
  return Vector32{n, n + 1, n + 2, n + 3};
}
[[gnu::target("avx512f,avx512dq")]] Vector64 from64(std::int64_t n) {
  return Vector64{n, n + 1, n + 2, n + 3, n + 4, n + 5, n + 6, n + 7};
}

[[gnu::target("avx2")]] void send32(IMP send, id receiver) {
  const Vector32 sum = reinterpret_cast<decltype(&vector32)>(send)(
      receiver, selectorNamed("vector32"), from32(10), from32(20), from32(30), from32(40), from32(50),
      from32(60), from32(70), from32(80));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(sum[i], 2040 + 36 * i) << "element " << i;
}
[[gnu::target("avx512f,avx512dq")]] void send64(IMP send, id receiver) {
  const Vector64 sum = reinterpret_cast<decltype(&vector64)>(send)(
      receiver, selectorNamed("vector64"), from64(10), from64(20), from64(30), from64(40), from64(50),
      from64(60), from64(70), from64(80));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(sum[i], 2040 + 36 * i) << "element " << i;
}
#endif

class Sender {
 public:
  Sender(const SendEntries& entries, id receiver) : entries_(entries), receiver_(receiver) {}

  template <class R, class... Args>
  R operator()(R (*)(id, SEL, Args...), const char* name, Args... args) const {
    return reinterpret_cast<R (*)(id, SEL, Args...)>(entries_.send)(receiver_, selectorNamed(name), args...);
  }
  Large forLarge(std::int64_t first, double second) const {
    const IMP chosen = entries_.stret != nullptr ? entries_.stret : entries_.send;
    return reinterpret_cast<decltype(&large)>(chosen)(receiver_, selectorNamed("large"), first, second);
  }
  IMP entry() const { return entries_.send; }

 private:
  const SendEntries& entries_;
  id receiver_;
};

void sendNumbers(const Sender& send) {
  EXPECT_EQ(send(integers, "integers", std::int64_t{1}, std::int64_t{2}, std::int64_t{3}, std::int64_t{4}),
            4321);
  EXPECT_EQ(send(floats, "floats", 1., 2.F, 3., 4.F, 5., 6.F, 7., 8.F), 87654321.);
  EXPECT_EQ(send(extended, "extended", 1.L), 1.L / 3) << "all 64 bits of the mantissa";
  const ExtendedPair both = send(extendedPair, "extendedPair", 1.L);
  EXPECT_TRUE(__real__ both == 1.L / 3 && __imag__ both == 1.L / 7);
  EXPECT_EQ(send(pair, "pair", 2.5), std::complex<double>(2.5, -2.5));
  const WideInteger wide = (WideInteger{1} << 100) + 5;
  EXPECT_TRUE(send(wideInteger, "wideInteger", wide) == wide * 3);
}

void sendStructures(const Sender& send, id receiver) {
  const Small both = send(small, "small", std::int64_t{-7}, 0.25);
  EXPECT_EQ(both.whole, -7);
  EXPECT_EQ(both.part, 0.25);
  const Large result = send.forLarge(11, 12.);
  EXPECT_EQ(result.values[0], 11);
  EXPECT_EQ(result.values[1], 12);
  EXPECT_EQ(result.values[2], reinterpret_cast<std::int64_t>(receiver));
  EXPECT_EQ(result.values[8], 8);
}

void sendOverTheStack(const Sender& send, id receiver) {
  std::array<std::int64_t, 16> words{};
  for (std::size_t i = 0; i < words.size(); ++i) words[i] = static_cast<std::int64_t>(3 * i);
  const double expected =
      crowd(nullptr, nullptr, words, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
  EXPECT_EQ(send(crowd, "crowd", words, 1, 2., 3, 4., 5, 6., 7., 8., 9., 10., 11., 12., 13., 14, 15, 16.L),
            expected);
  const auto variadic = reinterpret_cast<double (*)(id, SEL, int, ...)>(send.entry());
  EXPECT_EQ(variadic(receiver, selectorNamed("variable"), 10, 1., 1, 2., 2, 3., 3, 4., 4, 5., 5, 6., 6, 7., 7,
                     8., 8, 9., 9, 10., 10),
            385);
  EXPECT_EQ(variadic(receiver, selectorNamed("variable"), 0), 0);
  EXPECT_EQ(send(deep, "deep", send.entry(), 100), 100);
}

}  // namespace

Class defineEverySignature(Runtime& runtime) {
  ClassDefinition definition(runtime, "EverySignature");
  const auto add = [&](const char* name, auto* method) {
    runtime.addInstanceMethod(definition.cls(), selectorNamed(name), reinterpret_cast<IMP>(method), "v@:");
  };
  add("integers", integers);
  add("floats", floats);
  add("crowd", crowd);
  add("variable", variable);
  add("extended", extended);
  add("extendedPair", extendedPair);
  add("pair", pair);
  add("small", small);
  add("large", large);
  add("wideInteger", wideInteger);
  add("deep", deep);
#if defined(__x86_64__)
  add("vector32", vector32);
  add("vector64", vector64);
#endif
  return definition.cls();
}

void sendEverySignature(const SendEntries& entries, id receiver) {
  const Sender send(entries, receiver);
  sendNumbers(send);
  sendStructures(send, receiver);
  sendOverTheStack(send, receiver);
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2") != 0) send32(entries.send, receiver);
  if (__builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512dq") != 0)
    send64(entries.send, receiver);
#endif
}

}  // namespace qbv::tests
