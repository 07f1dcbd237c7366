#include <algorithm>
#include <string>

#include "host/control/protocol.h"
#include "host/standin/standin.h"
#include "vitalscope/control/QBVTool.h"
#include "vitalscope/hang/QBVitalscopeANRMonitor.h"
#include "vitalscope/platform/files.h"
#include "vitalscope/platform/platform.h"

namespace qbv::standin {

namespace {

std::string diagnosticFolder() {
  return expandingTildeInPath("~/Library/Logs/quibapp/Diagnostic/" + QBVTool::currentProcessID());
}

// "QBVANR_LEVEL_Light" → "light".
std::string levelWord(const std::string& recordKey) {
  std::string word = recordKey.substr(recordKey.rfind('_') + 1);
  std::ranges::transform(word, word.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? char(c | 0x20) : c; });
  return word;
}

Value hangsByLevel(const QBVitalscopeANRMonitor& monitor) {
  Value::Dictionary hangs;
  for (const auto& [key, count] : monitor.runTimeANRInfo())
    hangs[levelWord(key)] = static_cast<long long>(count);
  return hangs;
}

void addHangMonitor(Value::Dictionary& facts) {
  const QBVitalscopeANRMonitor& monitor = *QBVitalscopeANRMonitor::sharedInstance();
  facts[control::kAwake] = monitor.isApplicationInActive();
  facts[control::kWatchingMainThread] = monitor.isStart();
  facts[control::kHangLevel] = monitor.anrLevel();
  facts[control::kFindings] = static_cast<long long>(monitor.anrTimes());
  facts[control::kHangs] = hangsByLevel(monitor);
  Value::Array jumps;
  for (const std::string& jump : monitor.cpuUseageRecords()) jumps.emplace_back(jump);
  facts[control::kCpuJumps] = jumps;
}

}  // namespace

Value StandIn::status() const {
  const double sinceLoop = static_cast<double>(platform().clock.monotonicNanoseconds() - mainLoopSeenAt_) /
                           static_cast<double>(NSEC_PER_SEC);
  const bool internal = QBVTool::isInternalAccount();
  Value::Dictionary facts{{control::kProcessId, platform().hostInfo.processIdentifier()},
                          {control::kExecutable, platform().hostInfo.processName()},
                          {control::kSignedIn, signedIn_.load()},
                          {control::kInternalAccount, internal},
                          {control::kKeepsLogs, QBVTool::isLogVersion()},
                          {control::kActive, active_.load()},
                          {control::kActivitySource, activitySource_.load()},
                          {control::kMainLoop, platform().runLoop.mainLoopKind()},
                          {control::kMainLoopSeconds, sinceLoop},
                          {control::kWatchingRunLoop, watchingRunLoop_.load()},
                          {control::kDiagnosticFolder, diagnosticFolder()}};
  if (uploads_ != nullptr) facts[control::kUploads] = uploads_->status();
  if (internal) addHangMonitor(facts);
  return facts;
}

}  // namespace qbv::standin
