#include "vitalscope/probes/QBVIOMonitor.h"

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"

using qbv::platform;

namespace {

constexpr double kSecondsBetweenSamples = 1;

// From the sample before to this one, of which `bytes` is known.
void turn(io_stats& stats, std::uint64_t bytesBefore, bool isFirst, std::uint64_t ofProcess) {
  stats.bytes_prev = bytesBefore;
  stats.bytes_delta = isFirst || stats.bytes < bytesBefore ? 0 : stats.bytes - bytesBefore;
  stats.bsd_bytes_prev = stats.bsd_bytes;
  stats.bsd_bytes = ofProcess;
}

}  // namespace

QBVIOMonitor* QBVIOMonitor::sharedInstance() {
  static QBVIOMonitor* const instance = new QBVIOMonitor;
  return instance;
}

QBVIOMonitor::QBVIOMonitor()
    : ticks_(qbv::queueLabel("qbvio.monitor"), kSecondsBetweenSamples, [this] { fetchIOInfo(); }) {}

void QBVIOMonitor::start() {
  {
    const std::lock_guard lock(countersLock_);
    if (drivelist_ == 0)
      platform().devices.IOServiceGetMatchingServices(qbv::IOServiceMatching(qbv::kIOBlockStorageDriver),
                                                      drivelist_);
  }
  ticks_.start();
}

void QBVIOMonitor::stop() {
  ticks_.stop();
}

void QBVIOMonitor::fetchIOInfo() {
  io_stats read = i_dsk();
  io_stats written = o_dsk();
  const std::uint64_t readBefore = read.bytes;
  const std::uint64_t writtenBefore = written.bytes;
  getDISKcounters(drivelist(), &read, &written);
  const qbv::ProcessDiskIO process = platform().devices.diskIOOfProcess().value_or(qbv::ProcessDiskIO());

  const std::lock_guard lock(countersLock_);
  turn(read, readBefore, !isSampled_, process.bytesRead);
  turn(written, writtenBefore, !isSampled_, process.bytesWritten);
  i_dsk_ = read;
  o_dsk_ = written;
  isSampled_ = true;
}

qbv::IOIterator QBVIOMonitor::drivelist() const {
  const std::lock_guard lock(countersLock_);
  return drivelist_;
}

io_stats QBVIOMonitor::i_dsk() const {
  const std::lock_guard lock(countersLock_);
  return i_dsk_;
}

io_stats QBVIOMonitor::o_dsk() const {
  const std::lock_guard lock(countersLock_);
  return o_dsk_;
}

extern "C" void getDISKcounters(qbv::IOIterator drivelist, io_stats* i_dsk, io_stats* o_dsk) {
  qbv::Devices& devices = platform().devices;
  std::uint64_t read = 0;
  std::uint64_t written = 0;
  while (const qbv::IOObject drive = devices.IOIteratorNext(drivelist)) {
    const qbv::Value statistics = devices.IORegistryEntryCreateCFProperty(drive, "Statistics");
    read += static_cast<std::uint64_t>(statistics["Bytes (Read)"].longLongValue());
    written += static_cast<std::uint64_t>(statistics["Bytes (Write)"].longLongValue());
    devices.IOObjectRelease(drive);
  }
  devices.IOIteratorReset(drivelist);
  i_dsk->bytes = read;
  o_dsk->bytes = written;
}
