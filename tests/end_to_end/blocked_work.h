// Work that blocks the main thread, by functions whose names a report must show.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Waits in a system call, or keeps a core busy, for so many seconds. Each calls the next of its kind.
void importAttachments(double seconds);
void copyFromSlowShare(double seconds);
void recalculateSheet(double seconds);
void evaluateFormulas(double seconds);

#ifdef __cplusplus
}
#endif
