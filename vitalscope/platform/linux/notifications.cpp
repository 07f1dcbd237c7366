#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/sleep_watch.h"
#include "vitalscope/platform/portable/notification_table.h"

namespace qbv::linux_backend {

namespace {

// Watches the machine from the first observer on: who listens to nothing costs nothing.
class WorkspaceCentre final : public NotificationCentre {
 public:
  void addObserver(const std::string& name, NotificationHandler handler) override {
    table_.addObserver(name, std::move(handler));
    startSleepWatch(table_);
  }
  void post(const std::string& name, const Value& userInfo) override { table_.post(name, userInfo); }

 private:
  NotificationTable table_;
};

class LinuxNotifications final : public Notifications {
 public:
  NotificationCentre& defaultCenter() override { return default_; }
  NotificationCentre& workspaceCenter() override { return workspace_; }

 private:
  NotificationTable default_;
  WorkspaceCentre workspace_;
};

}  // namespace

Notifications& notifications() {
  static LinuxNotifications* const instance = new LinuxNotifications;
  return *instance;
}

}  // namespace qbv::linux_backend
