// The main queue inside the main loop of GLib: GTK, Qt as distributions build it, and whatever else turns the
// default main context.
#pragma once

namespace qbv::linux_backend {

// Looks for GLib among the loaded libraries, which this library is not linked with, and makes the main
// queue's descriptor a source of the default main context (default priority, may recurse), drained by the
// main thread alone. The context's poll function is wrapped to see its passes; a host that sets a function of
// its own, before or afterwards, keeps it, and the source still tells of passes that drain.
//
// True when it is attached; then never call it again. False without GLib, or with one older than 2.36. Any
// thread, one at a time. Waits while another thread's dlopen runs constructors; changes errno. GLib is never
// unloaded afterwards.
bool attachToGlib();

}  // namespace qbv::linux_backend
