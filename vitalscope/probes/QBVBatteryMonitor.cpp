#include "vitalscope/probes/QBVBatteryMonitor.h"

#include <utility>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"

using qbv::platform;

namespace {

constexpr double kSecondsBetweenSamples = 10;
constexpr double kHeavyDrawWatts = 20;
constexpr double kThousandths = 1000;

std::atomic<QBVBatteryMonitor::PowerReport> powerReport{nullptr};

}  // namespace

QBVBatteryMonitor* QBVBatteryMonitor::sharedInstance() {
  static QBVBatteryMonitor* const instance = new QBVBatteryMonitor;
  return instance;
}

void QBVBatteryMonitor::setPowerReport(PowerReport report) noexcept {
  powerReport.store(report, std::memory_order_release);
}

QBVBatteryMonitor::QBVBatteryMonitor()
    : ticks_(qbv::queueLabel("battery.monitor"), kSecondsBetweenSamples, [this] { handleBatteryMonitor(); }) {
}

void QBVBatteryMonitor::start() {
  ticks_.start();
}

void QBVBatteryMonitor::stop() {
  ticks_.stop();
}

void QBVBatteryMonitor::handleBatteryMonitor() {
  qbv::Devices& devices = platform().devices;
  qbv::IOIterator sources = 0;
  if (devices.IOServiceGetMatchingServices(qbv::IOServiceMatching(qbv::kIOPMPowerSource), sources) !=
      qbv::KERN_SUCCESS)
    return;
  while (const qbv::IOObject source = devices.IOIteratorNext(sources)) {
    qbv::Value properties;
    if (devices.IORegistryEntryCreateCFProperties(source, properties) == qbv::KERN_SUCCESS)
      takeOver(properties);
    devices.IOObjectRelease(source);
  }
  devices.IOObjectRelease(sources);
  updatePerMinuteBatteryConsume(powerDrawn());
}

void QBVBatteryMonitor::takeOver(const qbv::Value& properties) {
  const auto number = [&properties](const char* key) { return properties[key].longLongValue(); };
  const auto flag = [&properties](const char* key) { return properties[key].boolValue(); };
  const auto thousandth = [&number](const char* key) {
    return static_cast<double>(number(key)) / kThousandths;
  };
  totalCapacity_.store(number("AppleRawMaxCapacity"), std::memory_order_relaxed);
  currentCharge_.store(number("AppleRawCurrentCapacity"), std::memory_order_relaxed);
  amperage_.store(thousandth("Amperage"), std::memory_order_relaxed);
  voltage_.store(thousandth("Voltage"), std::memory_order_relaxed);
  minutesRemaining_.store(number("TimeRemaining"), std::memory_order_relaxed);
  isCharging_.store(flag("IsCharging"), std::memory_order_relaxed);
  isFullyCharged_.store(flag("FullyCharged"), std::memory_order_relaxed);
  isPluggedIn_.store(flag("ExternalConnected"), std::memory_order_relaxed);
}

double QBVBatteryMonitor::powerDrawn() const {
  const double product = amperage() * voltage();
  return product < 0 ? -product : 0.0;
}

void QBVBatteryMonitor::updatePerMinuteBatteryConsume(double watts) {
  for (const auto& object : delegateObjects())
    if (auto* const observer = dynamic_cast<QBVBatteryMonitorDelegate*>(object.get()))
      observer->qbvBatteryMonitorPerMinPowerConsumption(watts);
  if (!isPluggedIn()) handleBatteryPower(watts);
}

void QBVBatteryMonitor::handleBatteryPower(double watts) {
  if (!(watts > kHeavyDrawWatts)) return;
  if (const PowerReport report = powerReport.load(std::memory_order_acquire)) report();
}

void QBVBatteryMonitor::registerDelegate(std::shared_ptr<qbv::Object> observer) {
  if (observer == nullptr) return;
  const std::lock_guard lock(observersLock_);
  delegateObjects_.push_back(std::move(observer));
}

std::vector<std::shared_ptr<qbv::Object>> QBVBatteryMonitor::delegateObjects() const {
  const std::lock_guard lock(observersLock_);
  return delegateObjects_;
}

std::shared_ptr<QBVBatteryMonitorDelegate> QBVBatteryMonitor::delegate() const {
  const std::lock_guard lock(observersLock_);
  return delegate_.lock();
}

void QBVBatteryMonitor::setDelegate(const std::shared_ptr<QBVBatteryMonitorDelegate>& delegate) {
  const std::lock_guard lock(observersLock_);
  delegate_ = delegate;
}

double QBVBatteryMonitor::percentCharged() const {
  return static_cast<double>(currentCharge()) / static_cast<double>(totalCapacity());
}
