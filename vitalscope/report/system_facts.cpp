#include "vitalscope/report/system_facts.h"

#include "vitalscope/platform/platform.h"

namespace qbv {

std::string versionText(int major, int minor, int patch) {
  std::string text = std::to_string(major) + "." + std::to_string(minor);
  if (patch != 0) text.append(1, '.').append(std::to_string(patch));
  return text;
}

SystemFacts collectSystemFacts() {
  const Platform& system = platform();
  HostInfo& host = system.hostInfo;
  const OperatingSystemVersion version = host.operatingSystemVersion().value_or(OperatingSystemVersion{});
  SystemFacts facts;
  facts.systemName = host.systemName();
  facts.systemVersion = versionText(version.major, version.minor, version.patch);
  facts.bundleID = host.infoDictionaryValue("CFBundleIdentifier");
  facts.bundleVersion = host.infoDictionaryValue("CFBundleVersion");
  facts.bundleShortVersion = host.infoDictionaryValue("CFBundleShortVersionString");
  facts.deviceName = host.hostName();
  facts.cpuArchitecture = host.localArchitecture();
  facts.processName = host.processName();
  facts.processID = std::to_string(host.processIdentifier());
  facts.parentProcessID = std::to_string(host.parentProcessIdentifier());
  facts.executableName = host.infoDictionaryValue("CFBundleExecutable");
  facts.bundleName = host.infoDictionaryValue("CFBundleName");
  facts.timezone = system.dates.localTime(system.clock.CFAbsoluteTimeGetCurrent()).zone;
  return facts;
}

}  // namespace qbv
