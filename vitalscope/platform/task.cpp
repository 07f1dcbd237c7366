#include "vitalscope/platform/task.h"

namespace qbv {

void Task::willCaptureThreads(const ThreadPort*, std::uint32_t) {}
void Task::didCaptureThreads() {}

}  // namespace qbv
