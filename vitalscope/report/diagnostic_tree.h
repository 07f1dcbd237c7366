// The folder tree that every file of the framework lies in, as text.
#pragma once

#include <string>

#include "vitalscope/report/QBVReportFunctions.h"

namespace qbv {

// Absolute paths. Suffixes begin with "/" and are joined with another "/": a doubled "/" names the same
// folder.
struct DiagnosticTree {
  explicit DiagnosticTree(std::string rootPath);

  std::string root;
  std::string appMemoryOversize;
  std::string objectMemoryOversize;
  std::string leaks;
  std::string power;
  std::string dump;
  std::string inspectInfoRecord;
  std::string sampleLog;
};

// The tree of this process; composed on first use and kept. A forked child is another process. Any thread, no
// lock.
const DiagnosticTree& diagnosticTree();

// The path of a report file: folder, name by reason, ".hang"; ".hang" alone for a reason without reports.
// `freezeFolder` is the folder of the report's hang level. `isSample` counts for hangs only.
std::string reportFilePath(const DiagnosticTree& tree, const std::string& freezeFolder,
                           const std::string& reportId, QBVReportReason reason, bool isSample);

}  // namespace qbv
