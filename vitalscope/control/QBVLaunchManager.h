// How long the host takes from its process's start to the first turn of its main queue.
#pragma once

#include <functional>

#include "vitalscope/platform/export.h"

class QBV_EXPORT QBVLaunchManager {
 public:
  QBVLaunchManager() = delete;

  // When the kernel started this process, in milliseconds since 1970 (UTC) with fraction; 0 when it is not
  // known. Read once. Any thread.
  static double processStartTime();

  // Queues the measurement on the main queue and returns. The moment is taken on the first turn of the main
  // queue that runs one; a later call hands over the same duration again. Any thread.
  static void askStartTime();

  // The measured duration in seconds; 0 until the main queue has turned. Any thread.
  static double launchTime();

  // Who is told the duration: called on the main thread when it is measured, and at once, on the calling
  // thread, when it was measured before. One receiver: a later one takes the place of the former. Any thread.
  static void setLaunchTimeReceiver(std::function<void(double seconds)> receiver);
};
