#include "host/control/client.h"
#include "host/control/protocol.h"
#include "tools/quibvitalscope/doctor_checks.h"

namespace qbv::cli {
namespace {

using State = Check::State;

std::string textOf(const Value& facts, const char* key) {
  const std::string* const text = facts[key].string();
  return text == nullptr ? "?" : *text;
}

Check unreachable(const std::string& why) {
  return {"monitor", State::missing, true, why, "everything", "nothing is watched"};
}

Check monitor(const Value& facts) {
  Check check{"monitor", State::works, true, "watches the main thread", "everything", ""};
  if (facts[control::kWatchingMainThread].boolValue()) return check;
  check.state = State::limited;
  check.finding = !facts[control::kInternalAccount].boolValue() ? "the user is none of " QBV_MAIL_DOMAIN
                  : facts[control::kSignedIn].boolValue()       ? "has not begun to watch"
                                                                : "the user has signed out";
  check.fallback = "nothing is watched";
  return check;
}

Check mainLoop(const Value& facts) {
  const std::string kind = textOf(facts, control::kMainLoop);
  Check check{"main-loop", State::works, false, kind, "answers of the main thread", ""};
  if (kind == "GLib") check.finding = "GLib: the main queue has joined its default context";
  if (kind == "descriptor") check.finding = "one of its own, which polls the main queue's descriptor";
  return check;
}

Check activity(const Value& facts) {
  const std::string source = textOf(facts, control::kActivitySource);
  const bool told = source == "window manager";
  return {"activity",
          told ? State::works : State::limited,
          false,
          told ? "the window manager tells the active window" : "nobody tells the active window",
          "whether the application is the one in front",
          told ? "" : "it counts as being in front all the time"};
}

Check logs(const Value& facts) {
  const bool kept = facts[control::kKeepsLogs].boolValue();
  return {"monitors",
          kept ? State::works : State::limited,
          false,
          kept ? "behaves as a build that keeps logs" : "behaves as a build that keeps no logs",
          "monitors beside the one for hangs, call samples, leak checks",
          kept ? "" : "hangs are watched, nothing else"};
}

}  // namespace

std::vector<Check> processChecks(int process) {
  std::string error;
  const auto client = control::Client::connect(process, error);
  const std::optional<Value> facts = client != nullptr ? client->status(error) : std::nullopt;
  if (!facts) return {unreachable(error)};
  return {monitor(*facts), mainLoop(*facts), activity(*facts), logs(*facts)};
}

}  // namespace qbv::cli
