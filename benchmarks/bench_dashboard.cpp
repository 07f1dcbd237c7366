// What the dashboard costs its host: a step of the wave on a display, beside the same picture drawn and sent
// whole with a general drawing library, and a host that shows it, for CPU and memory.
#include <benchmark/benchmark.h>
#include <cairo/cairo.h>
#include <time.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <numbers>

#include "tests/end_to_end/host_process.h"
#include "tests/end_to_end/virtual_display.h"
#include "vitalscope/dashboard/QBVitalscopeDashboard.h"
#include "vitalscope/platform/linux/windows_x11/display.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace {

const std::string& displayName() {
  static const e2e::VirtualDisplay display;
  ::setenv("DISPLAY", display.name().c_str(), 1);
  return display.name();
}

double threadMicroseconds() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

class NobodyListens final : public qbv::linux_backend::DisplayListener {
  void mouseEvent(qbv::WindowNumber, const qbv::NSEvent&) override {}
  void windowMoved(qbv::WindowNumber, qbv::NSPoint) override {}
  void screenChanged(qbv::NSRect) override {}
};

// The dashboard itself, whose pictures the benchmark carries to the display.
class Gauge {
 public:
  Gauge() {
    dashboard->setup();
    dashboard->qbvMemoryUsage(512);
    scripted.runLoop.drainAll();
  }
  const qbv::WindowState& step() {
    dashboard->waveLayer()->setCurrentWaveLayerPath();
    scripted.runLoop.drainAll();
    return scripted.windows.window(1).state;
  }
  qbv::ScriptedPlatform scripted;
  std::shared_ptr<QBVitalscopeDashboard> dashboard = std::make_shared<QBVitalscopeDashboard>();
};

void circle(cairo_t* cairo, double radius) {
  cairo_arc(cairo, 50, 50, radius, 0, 2 * std::numbers::pi);
}

void label(cairo_t* cairo, const char* text, double size, double baseline) {
  cairo_text_extents_t extents;
  cairo_set_font_size(cairo, size);
  cairo_text_extents(cairo, text, &extents);
  cairo_move_to(cairo, 50 - extents.width / 2, baseline);
  cairo_set_source_rgba(cairo, 0, 0, 0, 0.6);
  cairo_show_text(cairo, text);
}

void paintWithCairo(cairo_t* cairo, double phase) {
  cairo_set_operator(cairo, CAIRO_OPERATOR_CLEAR);
  cairo_paint(cairo);
  cairo_set_operator(cairo, CAIRO_OPERATOR_OVER);
  cairo_save(cairo);
  circle(cairo, 50);
  cairo_clip(cairo);
  cairo_set_source_rgba(cairo, 0, 1, 0, 0.6);
  cairo_paint(cairo);
  cairo_move_to(cairo, 0, 50);
  for (int x = 0; x <= 100; x += 2) cairo_line_to(cairo, x, 50 - 1.6 * std::sin(phase + x * 0.0628));
  cairo_line_to(cairo, 100, 0);
  cairo_line_to(cairo, 0, 0);
  cairo_close_path(cairo);
  cairo_set_source_rgba(cairo, 1, 1, 1, 0.6);
  cairo_fill(cairo);
  label(cairo, "512.00M", 17, 46);
  label(cairo, "CPU:12%", 13, 80);
  cairo_restore(cairo);
  circle(cairo, 49.5);
  cairo_set_line_width(cairo, 1);
  cairo_set_source_rgba(cairo, 0, 1, 0, 0.6);
  cairo_stroke(cairo);
}

class CairoWindow {
 public:
  explicit CairoWindow(xcb_connection_t* connection) : connection_(connection) {
    const xcb_screen_t& screen = *xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    xcb_create_window(connection, screen.root_depth, window_, screen.root, 0, 0, 100, 100, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen.root_visual, 0, nullptr);
    xcb_map_window(connection, window_);
    xcb_create_gc(connection, context_, window_, 0, nullptr);
    depth_ = screen.root_depth;
  }
  ~CairoWindow() {
    cairo_destroy(cairo_);
    cairo_surface_destroy(surface_);
  }
  CairoWindow(const CairoWindow&) = delete;
  CairoWindow& operator=(const CairoWindow&) = delete;
  void step() {
    paintWithCairo(cairo_, phase_ += 0.127);
    cairo_surface_flush(surface_);
    xcb_put_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, window_, context_, 100, 100, 0, 0, 0, depth_, 40000,
                  cairo_image_surface_get_data(surface_));
    xcb_flush(connection_);
  }

 private:
  xcb_connection_t* connection_;
  const xcb_window_t window_ = xcb_generate_id(connection_);
  const xcb_gcontext_t context_ = xcb_generate_id(connection_);
  std::uint8_t depth_ = 0;
  double phase_ = 0;
  cairo_surface_t* surface_ = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 100, 100);
  cairo_t* cairo_ = cairo_create(surface_);
};

void waveStep(benchmark::State& state) {
  if (displayName().empty()) return state.SkipWithError("the package xvfb is missing");
  const auto display = qbv::x11::Display::open();
  const qbv::x11::Connection plain(xcb_connect(nullptr, nullptr));
  CairoWindow cairo(plain.get());
  Gauge gauge;
  NobodyListens nobody;
  double ours = 0;
  double whole = 0;
  for (auto _ : state) {
    const double begin = threadMicroseconds();
    display->present(1, gauge.step());
    display->handleEvents(nobody, false);
    const double between = threadMicroseconds();
    cairo.step();
    whole += threadMicroseconds() - between;
    ours += between - begin;
    // As far apart as in a host, so that caches are as cold: what is measured is a step, not a loop of steps.
    timespec pause{0, 3'000'000};
    ::nanosleep(&pause, nullptr);
  }
  const auto steps = static_cast<double>(state.iterations());
  state.counters["step_us"] = ours / steps;
  state.counters["cairo_us"] = whole / steps;
  state.counters["ratio"] = ours / whole;
}
BENCHMARK(waveStep)->Iterations(1000)->Unit(benchmark::kMicrosecond);

// CPU time of all threads that it has now.
double processSeconds(pid_t pid) {
  double nanoseconds = 0;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task"))
    nanoseconds += std::atof(e2e::contentOf(thread.path() / "schedstat").c_str());
  return nanoseconds / 1e9;
}

double residentMegabytes(pid_t pid, const char* name) {
  const std::string text = e2e::contentOf("/proc/" + std::to_string(pid) + "/status");
  return std::atof(text.c_str() + text.find(name) + std::string_view(name).size()) / 1024;
}

// A host that does nothing else: the memory it has beside, and the share of a core while the gauge moves.
void hostWithDashboard(benchmark::State& state) {
  const std::string name = displayName();
  if (name.empty()) return state.SkipWithError("the package xvfb is missing");
  const e2e::TemporaryFolder home;
  for (auto _ : state) {
    e2e::HostProcess host(DASHBOARD_BENCH_HOST, {}, home.path(), {"DISPLAY=" + name});
    host.tell({"turn 0.5"});
    if (!host.finished()) return state.SkipWithError("the host ended");
    const double before = residentMegabytes(host.pid(), "VmRSS:");
    const double anonymousBefore = residentMegabytes(host.pid(), "RssAnon:");
    host.tell({"toggle", "wait shown", "memory 512", "turn 1"});
    host.finished();
    constexpr double seconds = 10;
    const double used = processSeconds(host.pid());
    host.tell({"turn 10"});
    host.finished();
    state.counters["percent_of_core"] = (processSeconds(host.pid()) - used) / seconds * 100;
    state.counters["resident_MB"] = residentMegabytes(host.pid(), "VmRSS:") - before;
    state.counters["of_it_private_MB"] = residentMegabytes(host.pid(), "RssAnon:") - anonymousBefore;
  }
}
BENCHMARK(hostWithDashboard)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
