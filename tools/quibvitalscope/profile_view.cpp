#include "tools/quibvitalscope/profile_view.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/quibvitalscope/terminal.h"

namespace qbv::cli {
namespace {

using nlohmann::ordered_json;

std::string textOf(const nlohmann::json& call, const char* key) {
  const auto found = call.find(key);
  return found != call.end() && found->is_string() ? printable(found->get<std::string>()) : "?";
}

bool readCalls(const nlohmann::json& holder, std::vector<ProfiledCall>& calls) {
  const auto records = holder.find("records");
  if (records == holder.end()) return true;
  if (!records->is_array()) return false;
  for (const nlohmann::json& record : *records) {
    const auto cost = record.find("milliseconds");
    if (cost == record.end() || !cost->is_number()) return false;
    ProfiledCall call;
    call.name = (record.value("classMethod", false) ? "+[" : "-[") + textOf(record, "class") + " " +
                textOf(record, "method") + "]";
    call.milliseconds = std::max(0.0, cost->get<double>());
    if (!readCalls(record, call.calls)) return false;
    calls.push_back(std::move(call));
  }
  return true;
}

void addLines(const std::vector<ProfiledCall>& calls, std::size_t depth, std::string& text) {
  for (const ProfiledCall& call : calls) {
    char cost[64];
    std::snprintf(cost, sizeof cost, "%6.2fms| ", call.milliseconds);
    text += cost + std::string(2 * depth, ' ') + call.name + "\n";
    addLines(call.calls, depth + 1, text);
  }
}

double sumOf(const std::vector<ProfiledCall>& calls) {
  double sum = 0;
  for (const ProfiledCall& call : calls) sum += call.milliseconds;
  return sum;
}

void addStacks(const std::vector<ProfiledCall>& calls, const std::string& above,
               std::map<std::string, long long>& stacks) {
  for (const ProfiledCall& call : calls) {
    std::string stack = call.name;
    std::replace(stack.begin(), stack.end(), ';', ',');
    if (!above.empty()) stack.insert(0, ";").insert(0, above);
    stacks[stack] += std::llround(std::max(0.0, call.milliseconds - sumOf(call.calls)) * 1000);
    addStacks(call.calls, stack, stacks);
  }
}

// Calls and returns, each at its time.
class Events {
 public:
  // Where the calls end when the earliest begins at `start`.
  double add(auto first, auto last, double start) {
    for (; first != last; ++first) {
      const std::size_t frame = frameOf(first->name);
      events_.push_back({{"type", "O"}, {"frame", frame}, {"at", start}});
      // A call whose caller was not recorded may stand below one that was shorter.
      const double inside = add(first->calls.rbegin(), first->calls.rend(), start);
      start = std::max(start + first->milliseconds, inside);
      events_.push_back({{"type", "C"}, {"frame", frame}, {"at", start}});
    }
    return start;
  }
  ordered_json& events() { return events_; }
  ordered_json& frames() { return frames_; }

 private:
  std::size_t frameOf(const std::string& name) {
    const auto [at, fresh] = known_.try_emplace(name, known_.size());
    if (fresh) frames_.push_back({{"name", name}});
    return at->second;
  }

  ordered_json events_ = ordered_json::array();
  ordered_json frames_ = ordered_json::array();
  std::map<std::string, std::size_t> known_;
};

}  // namespace

std::optional<std::vector<ProfiledCall>> parseProfile(std::string_view json, std::string& error) {
  const nlohmann::json file = nlohmann::json::parse(json, nullptr, false);
  std::vector<ProfiledCall> calls;
  if (file.is_object() && file.contains("records") && readCalls(file, calls)) return calls;
  error = "is no profile";
  return std::nullopt;
}

std::string profileTree(const std::vector<ProfiledCall>& calls) {
  std::string text;
  addLines(calls, 0, text);
  char total[64];
  std::snprintf(total, sizeof total, "\nTotal time in record:%.2f\n", sumOf(calls));
  return text + total;
}

std::string profileFolded(const std::vector<ProfiledCall>& calls) {
  std::map<std::string, long long> stacks;
  addStacks(calls, "", stacks);
  std::string text;
  for (const auto& [stack, microseconds] : stacks) {
    if (microseconds > 0) text += stack + " " + std::to_string(microseconds) + "\n";
  }
  return text;
}

std::string profileSpeedscope(const std::vector<ProfiledCall>& calls, const std::string& title) {
  Events events;
  const double end = events.add(calls.begin(), calls.end(), 0);
  const ordered_json file{{"$schema", "https://www.speedscope.app/file-format-schema.json"},
                          {"name", title},
                          {"exporter", "quibvitalscope"},
                          {"activeProfileIndex", 0},
                          {"shared", {{"frames", events.frames()}}},
                          {"profiles", ordered_json::array({{{"type", "evented"},
                                                             {"name", "main thread"},
                                                             {"unit", "milliseconds"},
                                                             {"startValue", 0},
                                                             {"endValue", end},
                                                             {"events", events.events()}}})}};
  return file.dump() + "\n";
}

}  // namespace qbv::cli
