#include "vitalscope/platform/portable/notification_table.h"

#include <utility>

namespace qbv {

void NotificationTable::addObserver(const std::string& name, NotificationHandler handler) {
  if (!handler) return;
  auto added = std::make_shared<const NotificationHandler>(std::move(handler));
  const std::lock_guard lock(mutex_);
  std::shared_ptr<const Handlers>& present = handlers_[name];
  auto replacement = present == nullptr ? std::make_shared<Handlers>() : std::make_shared<Handlers>(*present);
  replacement->push_back(std::move(added));
  present = std::move(replacement);
}

void NotificationTable::post(const std::string& name, const Value& userInfo) {
  std::shared_ptr<const Handlers> handlers;
  {
    const std::lock_guard lock(mutex_);
    const auto found = handlers_.find(name);
    if (found == handlers_.end()) return;
    handlers = found->second;
  }
  const Notification notification{name, userInfo};
  for (const auto& handler : *handlers) (*handler)(notification);
}

}  // namespace qbv
