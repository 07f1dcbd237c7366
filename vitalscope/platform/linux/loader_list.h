// The loader's list of images, held still.
#pragma once

#include <link.h>

#include <cstddef>

namespace qbv::linux_backend {

// dl_iterate_phdr, except that no fork() happens meanwhile: a child made while the list is held would find it
// held for ever, and hang in its next dlopen. A fork waits for visits under way, at most 200 ms, and visits
// wait for forks under way, at most as long. Any thread, not in signal handlers; visit must neither fork nor
// wait for another thread.
int visitLoadedImages(int (*visit)(dl_phdr_info* info, std::size_t size, void* data), void* data);

}  // namespace qbv::linux_backend
