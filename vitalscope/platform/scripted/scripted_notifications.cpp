#include "vitalscope/platform/scripted/scripted_notifications.h"

#include <utility>

namespace qbv {

void ScriptedNotificationCentre::addObserver(const std::string& name, NotificationHandler handler) {
  {
    const std::lock_guard lock(mutex_);
    ++observers_[name];
  }
  NotificationTable::addObserver(name, std::move(handler));
}

void ScriptedNotificationCentre::post(const std::string& name, const Value& userInfo) {
  {
    const std::lock_guard lock(mutex_);
    posted_.push_back({name, userInfo});
  }
  NotificationTable::post(name, userInfo);
}

std::vector<Notification> ScriptedNotificationCentre::posted() const {
  const std::lock_guard lock(mutex_);
  return posted_;
}

std::size_t ScriptedNotificationCentre::observerCount(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = observers_.find(name);
  return found == observers_.end() ? 0 : found->second;
}

}  // namespace qbv
