#include "vitalscope/report/QBVReportSources.h"

#include <atomic>
#include <utility>

namespace qbv {
namespace {

// Sources that were replaced stay: a report under way may still call them.
struct Installed {
  QBVReportSources sources;
  const Installed* previous;
};

std::atomic<const Installed*> installed{nullptr};

}  // namespace

void setReportSources(QBVReportSources sources) {
  auto* fresh = new Installed{std::move(sources), installed.load(std::memory_order_relaxed)};
  while (!installed.compare_exchange_weak(fresh->previous, fresh, std::memory_order_acq_rel)) {
  }
}

const QBVReportSources& reportSources() noexcept {
  static const QBVReportSources* const none = new QBVReportSources;
  const Installed* present = installed.load(std::memory_order_acquire);
  return present == nullptr ? *none : present->sources;
}

}  // namespace qbv
