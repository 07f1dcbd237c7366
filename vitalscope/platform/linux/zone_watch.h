// Keeps the C library's idea of the local time zone up to date.
#pragma once

namespace qbv::linux_backend {

// Has the C library read the zone anew (tzset) when the TZ variable or, without one, /etc/localtime has
// changed since the last call. Any thread; costs a few system calls. The environment is looked at in a way
// that survives a setenv() on another thread, which getenv() does not; the C library itself reads it only
// right after a change.
void followZoneChanges();

}  // namespace qbv::linux_backend
