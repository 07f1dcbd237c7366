// The signal that asks a running thread for its registers and stack, and its handler.
#pragma once

#include <cstdint>

#include "vitalscope/platform/linux/snapshot_slot.h"

namespace qbv::linux_backend {

// The signal's number: the highest real-time signal that nobody uses, taken on the first call and again
// whenever the host has put a handler of its own in its place; 0 when there is none. Its handler
//  - runs on the thread's alternate stack if it has one (languages with small stacks of their own ask that of
//    every handler) and needs less than 1 KB of stack itself;
//  - restarts interrupted system calls where the kernel can;
//  - keeps errno, takes no lock, allocates nothing, never faults;
//  - hands signals that are not ours to the handler that was there before.
// Any thread, not in signal handlers; two system calls.
int snapshotSignal();

// Sends it to a thread of the own process for a slot that is pending. False when it could not be sent.
bool sendSnapshotSignal(int signal, std::uint32_t thread, SnapshotSlot* slot);

}  // namespace qbv::linux_backend
