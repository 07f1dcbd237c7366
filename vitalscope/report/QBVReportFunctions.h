/* What hosts may call of the diagnostic files, from C or C++. */
#pragma once

#include "vitalscope/platform/export.h"

/* What a report is about. */
#ifdef __cplusplus
enum QBVReportReason : unsigned long {
#else
typedef unsigned long QBVReportReason;
enum {
#endif
  QBVReportReasonNone = 0,
  QBVReportReasonMainThreadBlock = 1,
  QBVReportReasonCPUOverThreshold = 2, /* never written */
  QBVReportReasonAppMemoryOversize = 3,
  QBVReportReasonObjectMemoryOversize = 4,
  QBVReportReasonLeaks = 5,
  QBVReportReasonPower = 6
};

#ifdef __cplusplus
extern "C" {
#endif

/* All four: any thread, not in signal handlers. */

/* The folder of a reason below the diagnostic root, as it is named in upload requests: "/leaks" for 5,
   "/app_memory_oversize" for 3, "/freeze" and the level's folder for 1 ("/freeze/moderate"; "/freeze" for a
   level outside 1..5), "" for every other reason. Constant text, never freed. */
QBV_EXPORT const char* qbv_reason_path(QBVReportReason reason, unsigned level);

/* Folder of a hang level: "/light", "/moderate", "/heavier", "/severe", "/freeze" for 1 to 5, "" for others.
   Constant text, never freed. */
QBV_EXPORT const char* qbv_anr_level_path(unsigned level);

/* The path with a leading "~" replaced by the user's home folder; unchanged when there is none or the home
   folder is not known. Null for null. The text belongs to the library and is valid until the calling thread
   calls this again. */
QBV_EXPORT const char* expanding_tilde_in_path(const char* path);

/* Removes the file, or the folder with all below it, if there is one. Links are removed, not followed. Errors
   are ignored; so is null. */
QBV_EXPORT void removeDirectory(const char* path);

#ifdef __cplusplus
}
#endif
