#include "vitalscope/platform/portable/selectors.h"

#include <deque>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "vitalscope/platform/runtime.h"

namespace qbv {

namespace {

class SelectorTable {
 public:
  SEL named(std::string_view name) {
    if (const SEL known = find(name)) return known;
    const std::lock_guard lock(mutex_);
    const auto found = selectorOfName_.find(name);
    if (found != selectorOfName_.end()) return found->second;
    const std::string& text = texts_.emplace_back(name);
    const SEL selector = &selectors_.emplace_back(objc_selector{text.c_str()});
    selectorOfName_.emplace(text, selector);
    return selector;
  }

 private:
  SEL find(std::string_view name) {
    const std::shared_lock lock(mutex_);
    const auto found = selectorOfName_.find(name);
    return found == selectorOfName_.end() ? nullptr : found->second;
  }

  std::shared_mutex mutex_;
  std::deque<std::string> texts_;
  std::deque<objc_selector> selectors_;
  std::map<std::string_view, SEL> selectorOfName_;
};

}  // namespace

SEL selectorNamed(const char* name) {
  static SelectorTable* const table = new SelectorTable;
  return table->named(name == nullptr ? "" : name);
}

const char* Runtime::NSStringFromSelector(SEL selector) noexcept {
  return selector == nullptr ? nullptr : selector->name;
}

}  // namespace qbv
