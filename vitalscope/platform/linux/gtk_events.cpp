#include "vitalscope/platform/linux/gtk_events.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/loaded_library.h"
#include "vitalscope/platform/linux/loader_list.h"
#include "vitalscope/platform/linux/process_identity.h"

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kLookInterval = NSEC_PER_SEC;

// The types of GDK's binary interface that are needed here, under its own names.
struct GdkEvent;
using GdkEventFunc = void (*)(GdkEvent* event, void* data);

using Words = std::span<const std::uintptr_t>;

struct Toolkit {
  void (*gdk_event_handler_set)(GdkEventFunc handler, void* data, void (*destroy)(void*));
  void (*gtk_main_do_event)(GdkEvent* event);
  std::array<Words, 4> gdkVariables;
};

constinit std::atomic<const Toolkit*> toolkit{nullptr};
constinit std::atomic_flag searching;
constinit std::atomic<std::uint64_t> addsSearched{0};

Words writableWords(const dl_phdr_info& image, const ElfW(Phdr) & segment) {
  constexpr std::uintptr_t kWord = sizeof(std::uintptr_t);
  const std::uintptr_t begin = (image.dlpi_addr + segment.p_vaddr + kWord - 1) / kWord * kWord;
  const std::uintptr_t end = image.dlpi_addr + segment.p_vaddr + segment.p_memsz;
  return {reinterpret_cast<const std::uintptr_t*>(begin), (end - begin) / kWord};
}

// Fills in the writable segments of the image that the handler's setter lies in.
int takeVariables(dl_phdr_info* info, std::size_t, void* result) {
  auto& found = *static_cast<Toolkit*>(result);
  const auto setter = reinterpret_cast<std::uintptr_t>(found.gdk_event_handler_set);
  const std::span segments(info->dlpi_phdr, info->dlpi_phnum);
  bool owner = false;
  for (const auto& segment : segments)
    owner |= segment.p_type == PT_LOAD && setter - info->dlpi_addr - segment.p_vaddr < segment.p_memsz;
  if (!owner) return 0;
  std::size_t count = 0;
  for (const auto& segment : segments)
    if (segment.p_type == PT_LOAD && (segment.p_flags & PF_W) != 0 && count < found.gdkVariables.size())
      found.gdkVariables[count++] = writableWords(*info, segment);
  return 1;
}

bool handlerIsGtks(const Toolkit& found) {
  const auto wanted = reinterpret_cast<std::uintptr_t>(found.gtk_main_do_event);
  for (const Words& words : found.gdkVariables)
    for (const std::uintptr_t& word : words)
      if (__atomic_load_n(&word, __ATOMIC_RELAXED) == wanted) return true;
  return false;
}

void handToGtk(void* event) {
  toolkit.load(std::memory_order_relaxed)->gtk_main_do_event(static_cast<GdkEvent*>(event));
}

void dispatchGdkEvent(GdkEvent* event, void*) {
  runLoop().sendEvent(handToGtk, event);
}

// Main thread.
void takeOverHandler() {
  const Toolkit* const found = toolkit.load(std::memory_order_acquire);
  if (found == nullptr || !detail::gtkEventsAwaited.load(std::memory_order_relaxed)) return;
  if (!handlerIsGtks(*found)) return;
  found->gdk_event_handler_set(dispatchGdkEvent, nullptr, nullptr);
  detail::gtkEventsAwaited.store(false, std::memory_order_relaxed);
}

// On the global queue: looking up waits for the loader.
void search() {
  addsSearched.store(loaderCounters().adds, std::memory_order_relaxed);
  void* const gdk = loadedLibrary("libgdk-3.so");
  void* const gtk = loadedLibrary("libgtk-3.so");
  Toolkit found{};
  if (gdk != nullptr && gtk != nullptr &&
      findFunction(gdk, "gdk_event_handler_set", found.gdk_event_handler_set) &&
      findFunction(gtk, "gtk_main_do_event", found.gtk_main_do_event)) {
    visitLoadedImages(takeVariables, &found);
    toolkit.store(new Toolkit(found), std::memory_order_release);
    dispatch().dispatch_async(dispatch().dispatch_get_main_queue(), takeOverHandler);
  }
  searching.clear(std::memory_order_release);
}

void searchSoon() {
  if (isForkedChild() || toolkit.load(std::memory_order_relaxed) != nullptr) return;
  if (loaderCounters().adds == addsSearched.load(std::memory_order_relaxed)) return;
  if (searching.test_and_set(std::memory_order_acquire)) return;
  dispatch().dispatch_async(dispatch().dispatch_get_global_queue(), search);
}

}  // namespace

void routeGtkEvents() {
  static constinit std::atomic_flag asked;
  if (asked.test_and_set() || isForkedChild()) return;
  detail::gtkEventsAwaited.store(true, std::memory_order_relaxed);
  searchSoon();
}

void detail::lookForGtkEvents() {
  static constinit std::uint64_t nextLook = 0;
  const std::uint64_t now = clock().monotonicNanoseconds();
  if (now < nextLook || isForkedChild()) return;
  nextLook = now + kLookInterval;
  searchSoon();
  takeOverHandler();
}

}  // namespace qbv::linux_backend
