// What the kernel tells of a process in a line, and the date that a report about it carries.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tracer {

// Ids of the process's threads, the ended ones that are still listed too. Empty when there is no process.
std::vector<pid_t> threadsOf(pid_t process);
// Whether the thread has ended. The first one of a process stays listed until the last one has.
bool hasEnded(pid_t process, pid_t thread);
// The first thread of the process that has not ended, through which its memory can be read: the process's own
// id as a rule. 0 when all have.
pid_t livingThread(pid_t process);

// The file's first line without its end; "" when it cannot be read.
std::string firstLine(const std::string& path);
// What a symbolic link points at; "" when it is none or may not be read.
std::string linkTarget(const std::string& path);
// Now, such as "2026-02-28 23:59:59", in local time.
std::string localDate();

}  // namespace tracer
