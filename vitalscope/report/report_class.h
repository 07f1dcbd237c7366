// What the host's classes may ask of the diagnostic files by name.
#pragma once

namespace qbv {

// Defines the run-time class "QBVitalscopeReport", so that a host that is not linked with this library learns
// what an upload is about:
//   +[QBVitalscopeReport currentFirstLevelDirPath]                    text, the folder suffix of the request
//   +[QBVitalscopeReport sharedInstance], -localLogFolderRootPath     text, the folder that it lies below
// The texts are never freed. Any thread; once is enough.
void defineReportClass();

}  // namespace qbv
