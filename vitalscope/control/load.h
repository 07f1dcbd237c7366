// What happens when the framework is loaded into a process.
#pragma once

namespace qbv {

// Plugs the monitors together and runs every class's load() in order. Called once, by the library's
// constructor, on the thread that loads it. Starts no thread and allocates little.
void load();

}  // namespace qbv
