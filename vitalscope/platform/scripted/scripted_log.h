// A log that remembers.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "vitalscope/platform/log.h"

namespace qbv {

class ScriptedLog final : public Log {
 public:
  void NSLog(const std::string& message) override;
  // Everything logged so far, oldest first. Any thread.
  std::vector<std::string> messages() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
};

}  // namespace qbv
