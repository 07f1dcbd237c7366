#include "vitalscope/platform/runtime.h"

#include <cstring>
#include <limits>

namespace qbv {

namespace {

// The encoding without what does not change how a message is sent: argument offsets ("v24@0:8"), qualifiers
// ("r*") and class names (@"NSString").
std::string bareEncoding(const char* types) {
  std::string bare;
  for (; types != nullptr && *types != '\0'; ++types) {
    if (*types == '"') {
      types = std::strchr(types + 1, '"');
      if (types == nullptr) break;
    } else if (std::strchr("0123456789rnNoORV", *types) == nullptr) {
      bare += *types;
    }
  }
  return bare;
}

template <class R>
std::int64_t call(IMP method, id receiver, SEL selector) {
  const R result = reinterpret_cast<R (*)(id, SEL)>(method)(receiver, selector);
  if constexpr (std::is_same_v<R, unsigned long long>)
    if (result > static_cast<R>(std::numeric_limits<std::int64_t>::max()))
      return std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(result);
}

std::optional<std::int64_t> callByResult(char result, IMP method, id receiver, SEL selector) {
  switch (result) {
    case 'B':
      return call<bool>(method, receiver, selector);
    case 'c':
      return call<signed char>(method, receiver, selector);
    case 'C':
      return call<unsigned char>(method, receiver, selector);
    case 's':
      return call<short>(method, receiver, selector);
    case 'S':
      return call<unsigned short>(method, receiver, selector);
    case 'i':
    case 'l':  // 32 bits in this encoding, on every machine
      return call<int>(method, receiver, selector);
    case 'I':
    case 'L':
      return call<unsigned>(method, receiver, selector);
    case 'q':
      return call<long long>(method, receiver, selector);
    case 'Q':
      return call<unsigned long long>(method, receiver, selector);
    default:
      return std::nullopt;
  }
}

}  // namespace

bool detail::encodingsMatch(const char* present, const std::string& wanted) noexcept {
  return present != nullptr && bareEncoding(present) == wanted;
}

std::optional<std::int64_t> sendInteger(Runtime& runtime, id receiver, const char* selectorName) {
  const SEL selector = runtime.NSSelectorFromString(selectorName);
  const char* types = nullptr;
  const IMP method = runtime.methodForSelector(receiver, selector, &types);
  if (method == nullptr) return std::nullopt;
  const std::string bare = bareEncoding(types);
  if (bare.size() != 3 || bare.compare(1, 2, "@:") != 0) return std::nullopt;
  return callByResult(bare[0], method, receiver, selector);
}

}  // namespace qbv
