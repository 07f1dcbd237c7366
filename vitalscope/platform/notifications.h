// Named notifications within the process.
#pragma once

#include <functional>
#include <string>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/value.h"

namespace qbv {

inline constexpr char NSWorkspaceWillSleepNotification[] = "NSWorkspaceWillSleepNotification";
inline constexpr char NSWorkspaceDidWakeNotification[] = "NSWorkspaceDidWakeNotification";
inline constexpr char NSApplicationDidBecomeActiveNotification[] = "NSApplicationDidBecomeActiveNotification";
inline constexpr char NSApplicationDidResignActiveNotification[] = "NSApplicationDidResignActiveNotification";

struct Notification {
  std::string name;
  Value userInfo;  // nil or a dictionary
};
using NotificationHandler = std::function<void(const Notification&)>;

// Any thread, not in signal handlers. No lock is held while observers run, so they may post and observe.
class QBV_EXPORT NotificationCentre {
 public:
  virtual ~NotificationCentre() = default;
  // Observers are never removed: what the handler refers to must live as long as the process.
  virtual void addObserver(const std::string& name, NotificationHandler handler) = 0;
  // Calls every observer of the name on the calling thread, in order of registration, before it returns. An
  // observer added meanwhile is not called for this notification.
  virtual void post(const std::string& name, const Value& userInfo = {}) = 0;
};

class QBV_EXPORT Notifications {
 public:
  virtual ~Notifications() = default;
  virtual NotificationCentre& defaultCenter() = 0;    // the host's events
  virtual NotificationCentre& workspaceCenter() = 0;  // the machine's events: sleep and wake
};

}  // namespace qbv
