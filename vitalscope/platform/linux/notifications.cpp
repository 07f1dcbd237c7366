#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/portable/notification_table.h"

namespace qbv::linux_backend {

Notifications& notifications() {
  static NotificationTables* const instance = new NotificationTables;
  return *instance;
}

}  // namespace qbv::linux_backend
