// The notification centres with a record of what was posted.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "vitalscope/platform/portable/notification_table.h"

namespace qbv {

// Any thread.
class ScriptedNotificationCentre final : public NotificationTable {
 public:
  void addObserver(const std::string& name, NotificationHandler handler) override;
  void post(const std::string& name, const Value& userInfo = {}) override;

  // Everything posted so far, oldest first, whether or not somebody observed it.
  std::vector<Notification> posted() const;
  // How many observers a name has.
  std::size_t observerCount(const std::string& name) const;

 private:
  mutable std::mutex mutex_;
  std::vector<Notification> posted_;
  std::map<std::string, std::size_t> observers_;
};

class ScriptedNotifications final : public Notifications {
 public:
  ScriptedNotificationCentre& defaultCenter() override { return default_; }
  ScriptedNotificationCentre& workspaceCenter() override { return workspace_; }

 private:
  ScriptedNotificationCentre default_;
  ScriptedNotificationCentre workspace_;
};

}  // namespace qbv
