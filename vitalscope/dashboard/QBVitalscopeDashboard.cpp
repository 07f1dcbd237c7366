#include "vitalscope/dashboard/QBVitalscopeDashboard.h"

QBVitalscopeDashboard* QBVitalscopeDashboard::sharedInstance() {
  static auto* const owner =
      new std::shared_ptr<QBVitalscopeDashboard>(std::make_shared<QBVitalscopeDashboard>());
  return owner->get();
}
