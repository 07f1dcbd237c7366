// The notification centres of a process.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vitalscope/platform/notifications.h"

namespace qbv {

// One centre. Observers are kept for the centre's life.
class QBV_EXPORT NotificationTable : public NotificationCentre {
 public:
  void addObserver(const std::string& name, NotificationHandler handler) override;
  void post(const std::string& name, const Value& userInfo = {}) override;

 private:
  using Handlers = std::vector<std::shared_ptr<const NotificationHandler>>;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<const Handlers>> handlers_;  // lists are replaced, never changed
};

// Both centres of a process, without anybody who posts on them by itself.
class QBV_EXPORT NotificationTables final : public Notifications {
 public:
  NotificationCentre& defaultCenter() override { return default_; }
  NotificationCentre& workspaceCenter() override { return workspace_; }

 private:
  NotificationTable default_;
  NotificationTable workspace_;
};

}  // namespace qbv
