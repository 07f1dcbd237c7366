#include "tools/quibvitalscope/live_screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

namespace qbv::cli {
namespace {

constexpr char kEnter[] = "\033[?1049h\033[?25l\033[?7l";  // other screen, no cursor, no wrapping
constexpr short kGone = POLLHUP | POLLERR | POLLNVAL;
constexpr char kLeave[] = "\033[?7h\033[?25h\033[?1049l";

void put(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

sigset_t servedSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}) sigaddset(&set, signal);
  return set;
}

}  // namespace

LiveScreen::LiveScreen(bool isDrawn) : isDrawn_(isDrawn) {
  const sigset_t served = servedSignals();
  sigprocmask(SIG_BLOCK, &served, nullptr);
  signals_ = signalfd(-1, &served, SFD_CLOEXEC | SFD_NONBLOCK);
  readsKeys_ = isDrawn_ && ::isatty(STDIN_FILENO) != 0 && ::tcgetattr(STDIN_FILENO, &before_) == 0;
  enter();
}

LiveScreen::~LiveScreen() {
  leave();
  if (signals_ >= 0) ::close(signals_);
}

void LiveScreen::enter() {
  if (readsKeys_) {
    termios keys = before_;
    keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    keys.c_cc[VMIN] = 0;
    keys.c_cc[VTIME] = 0;
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &keys);
  }
  if (isDrawn_) put(kEnter);
}

void LiveScreen::leave() {
  if (isDrawn_) put(kLeave);
  // What was typed meanwhile was meant for us.
  if (readsKeys_) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
}

void LiveScreen::draw(const std::vector<std::string>& lines) {
  std::string picture = "\033[H";
  for (std::size_t i = 0; i < lines.size(); ++i) picture += (i == 0 ? "" : "\r\n") + lines[i] + "\033[K";
  put(picture + "\033[J");
}

std::size_t LiveScreen::rows() const {
  constexpr std::size_t kUsual = 24;
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return kUsual;
  return size.ws_row;
}

LiveScreen::Event LiveScreen::wait(std::chrono::steady_clock::time_point until) {
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count();
    pollfd sources[] = {{signals_, POLLIN, 0}, {readsKeys_ ? STDIN_FILENO : -1, POLLIN, 0}};
    const int ready = ::poll(sources, 2, static_cast<int>(std::clamp<long long>(left, 0, 3600000)));
    if (ready <= 0) {
      if (left <= 0) return Event::elapsed;
      continue;
    }
    if ((sources[1].revents & kGone) != 0) return Event::quit;
    if (sources[1].revents != 0 && hasQuitKey()) return Event::quit;
    if (sources[0].revents == 0) continue;
    if (const Event event = handleSignal(); event != Event::elapsed) return event;
  }
}

LiveScreen::Event LiveScreen::handleSignal() {
  signalfd_siginfo signal{};
  if (::read(signals_, &signal, sizeof signal) != static_cast<ssize_t>(sizeof signal)) return Event::elapsed;
  switch (signal.ssi_signo) {
    case SIGWINCH:
      return Event::redraw;
    case SIGTSTP:
      stopUntilContinued();
      return Event::redraw;
    default:
      return Event::quit;
  }
}

bool LiveScreen::hasQuitKey() {
  char keys[64];
  const ssize_t count = ::read(STDIN_FILENO, keys, sizeof keys);
  return count > 0 && std::find(keys, keys + count, 'q') != keys + count;
}

void LiveScreen::stopUntilContinued() {
  leave();
  ::raise(SIGSTOP);
  enter();
}

}  // namespace qbv::cli
