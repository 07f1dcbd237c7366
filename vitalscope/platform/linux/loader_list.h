// The loader's list of images, held still.
#pragma once

#include <link.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qbv::linux_backend {

// dl_iterate_phdr, except that no fork() happens meanwhile: a child made while the list is held would find it
// held for ever, and hang in its next dlopen. A fork waits for visits under way, at most 200 ms, and visits
// wait for forks under way, at most as long. Any thread, not in signal handlers; visit must neither fork nor
// wait for another thread.
int visitLoadedImages(int (*visit)(dl_phdr_info* info, std::size_t size, void* data), void* data);

// What the loader calls a visited image, empty when it has no name. Belongs to the loader: for the visit
// only.
std::string_view loaderName(const dl_phdr_info& info);

// How many images the loader has added to its list and taken from it so far. An image may be counted before
// its constructors have run. About 50 ns, without asking the loader to load or look up anything. As above.
struct LoaderCounters {
  std::uint64_t adds = 0;
  std::uint64_t subs = 0;
};
LoaderCounters loaderCounters();

}  // namespace qbv::linux_backend
