#include "vitalscope/platform/linux/glib_loop.h"

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <span>
#include <string_view>
#include <utility>

#include "vitalscope/platform/linux/dispatch_timers.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/gtk_events.h"
#include "vitalscope/platform/linux/loaded_library.h"
#include "vitalscope/platform/linux/loop_observers.h"
#include "vitalscope/platform/linux/loop_passes.h"
#include "vitalscope/platform/linux/process_identity.h"
#include "vitalscope/platform/linux/run_loop_queue.h"

namespace qbv::linux_backend {

namespace {

constexpr std::string_view kLibrary = "libglib-2.0.so";

// The types of GLib's binary interface that are needed here, under its own names.
struct GMainContext;
struct GSource;
struct GPollFD {
  int fd;
  unsigned short events;
  unsigned short revents;
};
using GPollFunc = int (*)(GPollFD* entries, unsigned count, int timeout);
using GUnixFDSourceFunc = int (*)(int descriptor, unsigned condition, void* data);

// What a source's callback answers.
constexpr int kKeepSource = 1;
constexpr int kRemoveSource = 0;

struct Functions {
  GMainContext* (*g_main_context_default)();
  GPollFunc (*g_main_context_get_poll_func)(GMainContext*);
  void (*g_main_context_set_poll_func)(GMainContext*, GPollFunc);
  GSource* (*g_unix_fd_source_new)(int descriptor, unsigned condition);
  void (*g_source_set_name)(GSource*, const char*);
  void (*g_source_set_can_recurse)(GSource*, int);
  // A source of a descriptor takes its own kind of callback through the general type.
  void (*g_source_set_callback)(GSource*, GUnixFDSourceFunc, void* data, void (*destroy)(void*));
  unsigned (*g_source_attach)(GSource*, GMainContext*);
  void (*g_source_unref)(GSource*);
};

bool findAll(void* library, Functions& glib) {
#define QBV_FIND(name) findFunction(library, #name, glib.name)
  return QBV_FIND(g_main_context_default) && QBV_FIND(g_main_context_get_poll_func) &&
         QBV_FIND(g_main_context_set_poll_func) && QBV_FIND(g_unix_fd_source_new) &&
         QBV_FIND(g_source_set_name) && QBV_FIND(g_source_set_can_recurse) &&
         QBV_FIND(g_source_set_callback) && QBV_FIND(g_source_attach) && QBV_FIND(g_source_unref);
#undef QBV_FIND
}

constinit std::atomic<GPollFunc> pollOfHost{nullptr};

// Another thread turns the default context. It must not run the main thread's blocks; with the descriptor in
// its poll it would spin as long as they wait.
int pollWithoutMainQueue(std::span<GPollFD> entries, int timeout) {
  const int ours = MainQueue::shared().descriptor();
  const auto entry = std::ranges::find(entries, ours, &GPollFD::fd);
  if (entry != entries.end()) entry->fd = -1;
  const int ready = pollOfHost.load(std::memory_order_relaxed)(
      entries.data(), static_cast<unsigned>(entries.size()), timeout);
  if (entry != entries.end()) {
    entry->fd = ours;
    entry->revents = 0;
  }
  return ready;
}

// This pass has been told by the wrapped poll function. Main thread only.
constinit bool passIsTold = false;

// The pass that the firings ended is the one that runs them.
int withFirings(std::span<GPollFD> entries, int ready) {
  if (!TimerThread::shared().fireOfMainQueue() || ready < 0) return ready;
  const auto entry = std::ranges::find(entries, MainQueue::shared().descriptor(), &GPollFD::fd);
  if (entry == entries.end() || entry->revents != 0) return ready;
  entry->revents = POLLIN;
  return ready + 1;
}

int tellWokenPass(std::span<GPollFD> entries, int ready, bool slept) {
  const int error = errno;
  ready = withFirings(entries, ready);
  if (slept) tellActivity(kCFRunLoopAfterWaiting);
  tellActivity(kCFRunLoopBeforeTimers);
  tellActivity(kCFRunLoopBeforeSources);
  passIsTold = true;
  lookForGtkEvents();
  errno = error;
  return ready;
}

// GLib says nothing of a loop's begin and end. A poll that does not wait, because an idle source is ready or
// the host turns the loop now and then among work of its own, shows at any rate that the loop has come round:
// the pass before it is over, and does not count as going on however many of the kind follow.
int pollOfMainContext(GPollFD* entries, unsigned count, int timeout) {
  if (!onMainThread()) return pollWithoutMainQueue({entries, count}, timeout);
  noteLoopPass(LoopKind::glib);
  tellActivity(timeout != 0 ? kCFRunLoopBeforeWaiting : kCFRunLoopExit);
  const int ready = pollOfHost.load(std::memory_order_relaxed)(entries, count,
                                                               TimerThread::shared().shortenedWait(timeout));
  return tellWokenPass({entries, count}, ready, timeout != 0);
}

int drainMainQueue(int, unsigned condition, void*) {
  if (isForkedChild() || !onMainThread()) return kRemoveSource;
  if ((condition & POLLNVAL) != 0)
    return MainQueue::shared().replaceDescriptor() ? kKeepSource : kRemoveSource;
  noteLoopPass(LoopKind::glib);
  const SingleTurn turn(!std::exchange(passIsTold, false));
  MainQueue::shared().drain();
  return kKeepSource;
}

}  // namespace

bool attachToGlib() {
  void* const library = loadedLibrary(kLibrary);
  Functions glib{};
  const int wake = MainQueue::shared().descriptor();
  if (library == nullptr || wake < 0 || !findAll(library, glib)) return false;

  GMainContext* const context = glib.g_main_context_default();
  pollOfHost.store(glib.g_main_context_get_poll_func(context), std::memory_order_relaxed);
  glib.g_main_context_set_poll_func(context, pollOfMainContext);

  GSource* const source = glib.g_unix_fd_source_new(wake, POLLIN);
  glib.g_source_set_name(source, "QuibVitalscope main queue");
  glib.g_source_set_can_recurse(source, 1);
  glib.g_source_set_callback(source, drainMainQueue, nullptr, nullptr);
  glib.g_source_attach(source, context);
  glib.g_source_unref(source);
  return true;
}

}  // namespace qbv::linux_backend
