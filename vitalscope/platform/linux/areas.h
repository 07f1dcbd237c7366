// The areas of the real backend. Each is made on its first use and never destroyed.
#pragma once

#include "vitalscope/platform/platform.h"

namespace qbv::linux_backend {

Task& task();
Images& images();
Runtime& runtime();
Dispatch& dispatch();
RunLoop& runLoop();
Notifications& notifications();
Processes& processes();
Files& files();
Clock& clock();
Dates& dates();
Log& log();
HostInfo& hostInfo();
Allocator& allocator();
Devices& devices();
Windows& windows();

}  // namespace qbv::linux_backend
