#include "vitalscope/report/diagnostic_tree.h"

#include <atomic>
#include <memory>
#include <utility>

#include "vitalscope/platform/platform.h"

namespace qbv {
namespace {

constexpr char kRoot[] = "~/Library/Logs/quibapp/Diagnostic";

// One per process id that has asked; older ones stay, since their text may still be in use.
struct CachedTree {
  int process;
  DiagnosticTree tree;
  const CachedTree* previous;
};

}  // namespace

DiagnosticTree::DiagnosticTree(std::string rootPath)
    : root(std::move(rootPath)),
      appMemoryOversize(root + "/" + "/app_memory_oversize"),
      objectMemoryOversize(root + "/" + "/object_memory_oversize"),
      leaks(root + "/" + "/leaks"),
      power(root + "/" + "/power"),
      dump(root + "/" + "/dump"),
      inspectInfoRecord(root + "/" + "/inspect_info_record"),
      sampleLog(root + "/" + "/sample_log") {}

const DiagnosticTree& diagnosticTree() {
  static std::atomic<const CachedTree*> cache{nullptr};
  const int process = platform().hostInfo.processIdentifier();
  const CachedTree* present = cache.load(std::memory_order_acquire);
  while (present == nullptr || present->process != process) {
    const std::string root = expandingTildeInPath(kRoot) + "/" + std::to_string(process);
    auto fresh = std::make_unique<CachedTree>(CachedTree{process, DiagnosticTree(root), present});
    if (cache.compare_exchange_strong(present, fresh.get(), std::memory_order_acq_rel))
      present = fresh.release();
  }
  return present->tree;
}

std::string reportFilePath(const DiagnosticTree& tree, const std::string& freezeFolder,
                           const std::string& reportId, QBVReportReason reason, bool isSample) {
  std::string stem;
  switch (reason) {
    case QBVReportReasonMainThreadBlock:
      stem = isSample ? tree.sampleLog + "/quibapp_stuck_" + reportId + "_sample"
                      : freezeFolder + "/quibapp_stuck_" + reportId;
      break;
    case QBVReportReasonAppMemoryOversize:
      stem = tree.appMemoryOversize + "/quibapp_overmemory_" + reportId;
      break;
    case QBVReportReasonObjectMemoryOversize:
      stem = tree.objectMemoryOversize + "/quibapp_bigmemory_" + reportId;
      break;
    case QBVReportReasonLeaks:
      stem = tree.leaks + "/quibapp_leaks_" + reportId;
      break;
    case QBVReportReasonPower:
      stem = tree.power + "/quibapp_power_" + reportId;
      break;
    default:
      break;
  }
  return stem + ".hang";
}

}  // namespace qbv
