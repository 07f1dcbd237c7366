#include "vitalscope/platform/scripted/scripted_log.h"

namespace qbv {

void ScriptedLog::NSLog(const std::string& message) {
  const std::lock_guard lock(mutex_);
  messages_.push_back(message);
}

std::vector<std::string> ScriptedLog::messages() const {
  const std::lock_guard lock(mutex_);
  return messages_;
}

}  // namespace qbv
