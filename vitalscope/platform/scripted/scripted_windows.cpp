#include "vitalscope/platform/scripted/scripted_windows.h"

#include <utility>

namespace qbv {

void ScriptedWindows::prepare(Block then) {
  ++preparations_;
  then();
}

WindowNumber ScriptedWindows::addWindow(std::weak_ptr<WindowClient> client) {
  windows_[++lastNumber_].client = std::move(client);
  return lastNumber_;
}

void ScriptedWindows::present(WindowNumber number, WindowState state) {
  ScriptedWindow& window = windows_.at(number);
  window.state = std::move(state);
  ++window.presentations;
}

std::shared_ptr<WindowClient> ScriptedWindows::clientOf(WindowNumber number) const {
  return windows_.at(number).client.lock();
}

void ScriptedWindows::press(WindowNumber number, NSPoint point) {
  if (const auto client = clientOf(number)) client->mouseEvent({NSEvent::Type::leftMouseDown, point});
}

void ScriptedWindows::release(WindowNumber number, NSPoint point) {
  if (const auto client = clientOf(number)) client->mouseEvent({NSEvent::Type::leftMouseUp, point});
}

void ScriptedWindows::drag(WindowNumber number, NSPoint newOrigin) {
  if (const auto client = clientOf(number)) client->moved(newOrigin);
}

void ScriptedWindows::loseDisplay() {
  std::vector<std::shared_ptr<WindowClient>> shown;
  for (auto& [number, window] : windows_)
    if (std::exchange(window.state.visible, false)) shown.push_back(window.client.lock());
  for (const auto& client : shown)
    if (client != nullptr) client->closed();
}

}  // namespace qbv
