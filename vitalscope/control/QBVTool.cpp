#include "vitalscope/control/QBVTool.h"

#include <array>
#include <string_view>

#include "vitalscope/platform/platform.h"

using qbv::platform;

namespace qbv {

const char* mailDomain() noexcept {
  return QBV_MAIL_DOMAIN;
}

std::string queueLabel(const std::string& suffix) {
  std::string label = suffix;
  std::string_view rest = mailDomain();
  while (!rest.empty()) {
    const std::size_t dot = rest.find('.');
    label.insert(0, ".").insert(0, rest.substr(0, dot));
    rest = dot == std::string_view::npos ? std::string_view{} : rest.substr(dot + 1);
  }
  return label;
}

std::string shellWord(const std::string& text) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_@%+=:,./-";
  if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) return text;
  std::string word = "'";
  for (const char letter : text) word += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  return word + "'";
}

namespace {

std::optional<std::string> profileEmail() {
  Runtime& runtime = platform().runtime;
  const id adapter = Runtime::classObject(runtime.NSClassFromString("QBKXAppInterfaceAdapter"));
  const id profile = send<id>(runtime, adapter, "sharedUserProfileInstance");
  if (send<const char*>(runtime, profile, "getEmail") == nullptr) return std::nullopt;
  // The user may sign out between the two questions.
  const char* const email = send<const char*>(runtime, profile, "getEmail");
  return email != nullptr ? std::optional<std::string>(email) : std::nullopt;
}

bool isAddressAt(std::string_view email, std::string_view domain) {
  const std::size_t at = email.find('@');
  return at != std::string_view::npos && email.find('@', at + 1) == std::string_view::npos &&
         email.substr(at + 1) == domain;
}

}  // namespace
}  // namespace qbv

bool QBVTool::isLogVersion() {
  qbv::Runtime& runtime = platform().runtime;
  const qbv::id bundle = qbv::Runtime::classObject(runtime.NSClassFromString("NSBundle"));
  return qbv::sendInteger(runtime, bundle, "isLogVersion").value_or(0) != 0;
}

bool QBVTool::isInternalAccount() {
  if (inDebug()) return true;
  const std::optional<std::string> email = qbv::profileEmail();
  return email && qbv::isAddressAt(*email, qbv::mailDomain());
}

std::optional<std::string> QBVTool::cmd(const std::string& command) {
  std::string output = platform().processes.run(command);
  if (!qbv::isValidUTF8(output)) return std::nullopt;
  return output;
}

std::string QBVTool::currentProcessID() {
  return std::to_string(platform().hostInfo.processIdentifier());
}

int QBVTool::anrLevelWithPath(const std::string& path) noexcept {
  static constexpr std::array<const char*, 5> words = {"/light", "/moderate", "/heavier", "/severe",
                                                       "/freeze"};
  for (std::size_t index = 0; index < words.size(); ++index)
    if (path.find(words[index]) != std::string::npos) return static_cast<int>(index) + 1;
  return 0;
}

std::string QBVTool::dictToString(const qbv::Value& dictionary) {
  return dictionary.jsonText().value_or("");
}
