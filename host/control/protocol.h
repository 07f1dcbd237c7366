// How a monitored process and a program outside agree: environment variables, the control socket, messages.
//
// The socket is $XDG_RUNTIME_DIR/quibvitalscope/<process id>.sock (folder 0700), for the same user only. Each
// message is one JSON object on one line, and each request gets one answer, in order:
//   {"post": NAME, "userInfo": {…}}  posts a notification in the process ("userInfo" may be left out) →
//   {"ok": true}
//   {"status": true}                 → facts about the process, under the keys below
//   {"profile": true}                begins a profiling run of the main thread's message sends → {"ok": true}
//   {"profile": false}               ends it, without opening its page → {"ok": true, "profileFile": PATH};
//   the file
//                                    holds the calls as JSON, see docs/profiling.md
//   anything else                    → {"error": TEXT}
#pragma once

#include <cstddef>

namespace qbv::control {

// Set by who starts a program under the stand-in host, before it executes the program.
inline constexpr char kTargetVariable[] = "QUIBVITALSCOPE_TARGET";       // the process id that is meant
inline constexpr char kEmailVariable[] = "QUIBVITALSCOPE_EMAIL";         // default: someone@ the mail domain
inline constexpr char kKeepsLogsVariable[] = "QUIBVITALSCOPE_LOG";       // "0": a build that keeps no logs
inline constexpr char kBundleIdVariable[] = "QUIBVITALSCOPE_BUNDLE_ID";  // default: the executable's name
inline constexpr char kVersionVariable[] = "QUIBVITALSCOPE_VERSION";     // default: "0"
inline constexpr char kWatchRunLoopVariable[] = "QUIBVITALSCOPE_WATCH_RUN_LOOP";  // "1": from sign-in on
// Posted in a process under the stand-in host, it starts the run-loop monitor there.
inline constexpr char kWatchRunLoopNotification[] = "quibvitalscope_watch_run_loop";
// The user's consent to uploads: an absolute path or a command line; without either nothing is uploaded.
inline constexpr char kUploadToVariable[] = "QUIBVITALSCOPE_UPLOAD_TO";
inline constexpr char kUploadCommandVariable[] = "QUIBVITALSCOPE_UPLOAD_COMMAND";

// A longer line is refused and its connection closed.
inline constexpr std::size_t kMaximumMessageBytes = std::size_t{64} * 1024;

inline constexpr char kPost[] = "post";
inline constexpr char kUserInfo[] = "userInfo";
inline constexpr char kStatus[] = "status";
inline constexpr char kProfile[] = "profile";
inline constexpr char kProfileFile[] = "profileFile";
inline constexpr char kOk[] = "ok";
inline constexpr char kError[] = "error";

// Keys of the status.
inline constexpr char kProcessId[] = "pid";                    // number
inline constexpr char kExecutable[] = "executable";            // name of the executable's file
inline constexpr char kSignedIn[] = "signedIn";                // the user is signed in
inline constexpr char kInternalAccount[] = "internalAccount";  // and is one whose host is monitored
inline constexpr char kKeepsLogs[] = "keepsLogs";              // all monitors run, not only the hang monitor
inline constexpr char kActive[] = "active";                    // the application is in front
inline constexpr char kActivitySource[] = "activitySource";    // who says so: "window manager" or "always"
inline constexpr char kMainLoop[] =
    "mainLoop";  // "GLib", "descriptor" (the application polls it), "own loop"
inline constexpr char kMainLoopSeconds[] = "mainLoopSeconds";  // since its main loop's first pass was seen
inline constexpr char kAwake[] = "awake";                      // false while the machine goes to sleep
inline constexpr char kWatchingMainThread[] = "watchingMainThread";  // the hang monitor ticks
inline constexpr char kWatchingRunLoop[] = "watchingRunLoop";        // the run-loop monitor was started
inline constexpr char kDiagnosticFolder[] = "diagnosticFolder";      // where reports go; made with the first
inline constexpr char kHangLevel[] = "hangLevel";                    // level of the latest hang, 0 to 5
inline constexpr char kFindings[] = "findings";                      // ticks that found something
inline constexpr char kHangs[] =
    "hangs";  // ticks per level: "light", "moderate", "heavier", "severe", "freeze"
// Missing without the user's consent: "to" or "command", and the numbers "requested", "done", "failed".
inline constexpr char kUploads[] = "uploads";
inline constexpr char kCpuJumps[] = "cpuJumps";  // texts such as "85%", oldest first

}  // namespace qbv::control
