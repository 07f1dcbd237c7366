#include "host/control/server.h"

namespace qbv::control {

namespace {

Value refusal(const char* reason) {
  return Value::Dictionary{{kError, reason}};
}

Value post(const Value& message, const Requests& requests) {
  const std::string* const name = message[kPost].string();
  const Value& userInfo = message[kUserInfo];
  if (name == nullptr || name->empty()) return refusal("\"post\" must be the name of a notification");
  if (!userInfo.isNil() && userInfo.dictionary() == nullptr) return refusal("\"userInfo\" must be an object");
  requests.post(*name, userInfo);
  return Value::Dictionary{{kOk, true}};
}

Value profile(const Value& wanted, const Requests& requests) {
  const bool on = wanted.boolValue();
  const std::optional<std::string> file = requests.profile(on);
  if (!file)
    return refusal(on ? "a profiling run is on already; the notification user_method_time_profile ends it"
                      : "no profiling run is on");
  Value::Dictionary answer{{kOk, true}};
  if (!on) answer[kProfileFile] = *file;
  return answer;
}

}  // namespace

Value answerTo(const std::string& line, const Requests& requests) {
  const std::optional<Value> message = Value::fromJSON(line);
  if (!message || message->dictionary() == nullptr) return refusal("not a JSON object");
  if (message->dictionary()->contains(kPost)) return post(*message, requests);
  if ((*message)[kStatus].boolValue()) return requests.status();
  if (message->dictionary()->contains(kProfile) && requests.profile)
    return profile((*message)[kProfile], requests);
  return refusal("unknown request");
}

}  // namespace qbv::control
