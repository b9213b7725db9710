// The client's pointer, keys and text, on their way to the injector.

#include <algorithm>

#include "host/session/HostSession.hpp"
#include "kit/async/Uptime.hpp"

namespace kelvaron::host {

asio::awaitable<void> HostSession::handlePointer(const PointerEvent& event, std::uint32_t seq) {
  // Touching the pointer wakes a sleeping display, as moving a mouse would; nothing else does.
  if (std::holds_alternative<pointer::moveRelative>(event) && env_.isDisplayAsleep()) {
    env_.power->declareUserActivity();
    log_.info("declared user activity (wake display)");
    co_await env_.onWakeRequested(true);
  }
  std::optional<DisplayInfo> display;
  if (const auto* absolute = std::get_if<pointer::moveAbsolute>(&event)) {
    const auto found = std::ranges::find(displays_, absolute->displayID, &DisplayInfo::id);
    if (found != displays_.end()) display = *found;
    // In focus mode the client's coordinates span the surface, whatever display it names.
    if (focus_) display = focusedPointerDisplay();
  }
  // Recorded before the click goes out, so that a focus change it causes finds it.
  if (const auto* press = std::get_if<pointer::button>(&event); press && press->isDown) {
    if (const auto position = env_.injector->currentPointerPosition()) {
      env_.clicks->record({*position, uptimeSeconds()});
    }
  }
  env_.injector->injectPointer(inputOwner_, event, display);
  // Also when the event did nothing for want of a display: the client counts it as applied.
  lastAppliedSeq_ = seq;
  // The client gets its own movement back as soon as it may, and no more often.
  publishCursor(env_.cursorInputInterval);
}

}  // namespace kelvaron::host
