#include "host/desktop/X11FocusObserver.hpp"

#include <unistd.h>

#include <algorithm>

#include "host/desktop/AppListing.hpp"
#include "host/desktop/X11WindowCore.hpp"
#include "host/desktop/X11WindowSystem.hpp"

namespace kelvaron::host {

namespace {

constexpr double kMinOverlayWidth = 60, kMinOverlayHeight = 40;
constexpr double kMaxOverlayShare = 0.9;  // of its display: what covers nearly all is no popup
constexpr double kInsideMargin = 8;       // points around the streamed window still inside it

Rect frameOf(const DisplayInfo& display) {
  return {display.frame.x, display.frame.y, display.frame.width, display.frame.height};
}

double overlapArea(const Rect& a, const Rect& b) {
  const double width = std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x);
  const double height = std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y);
  return width > 0 && height > 0 ? width * height : 0;
}

bool inside(const Rect& inner, const Rect& outer, double margin) {
  return inner.x >= outer.x - margin && inner.y >= outer.y - margin &&
         inner.x + inner.width <= outer.x + outer.width + margin &&
         inner.y + inner.height <= outer.y + outer.height + margin;
}

bool isOverlay(const WindowRecord& window, const FocusedWindow& focus, std::int32_t ownPID,
               const std::vector<DisplayInfo>& displays) {
  if (!window.isOnScreen || window.pid == ownPID || window.id == focus.windowID) return false;
  if (isIgnoredOwner(window.ownerName)) return false;
  if (!isTransientOwner(window.ownerName) && window.layer <= kNormalLayer) return false;
  if (window.frame.width < kMinOverlayWidth || window.frame.height < kMinOverlayHeight) {
    return false;
  }
  const auto display = displayIndexOf(window.frame, displays);
  if (!display) return false;
  const Rect screen = frameOf(displays[*display]);
  if (overlapArea(window.frame, screen) <= 0) return false;
  if (window.frame.width * window.frame.height >= kMaxOverlayShare * screen.width * screen.height) {
    return false;
  }
  return window.pid != focus.pid || !inside(window.frame, focus.frame, kInsideMargin);
}

FocusObservation observeNow(X11WindowCore& core, const FocusedWindow& focus,
                            const std::vector<DisplayInfo>& displays) {
  FocusObservation observation;
  const auto snapshot = core.snapshot(true);
  if (!snapshot) return observation;
  const std::int32_t ownPID = ::getpid();
  for (const X11Window& window : snapshot->windows) {
    const WindowRecord& record = window.record;
    const std::string& appName = core.process(window).identity.name;
    if (record.id == snapshot->desktop.active && !window.overrideRedirect) {
      // A window without a type that is transient for another is a dialog, as EWMH has it.
      const std::string type =
          window.type.empty() && window.transientFor ? "_NET_WM_WINDOW_TYPE_DIALOG" : window.type;
      observation.focused = ObservedWindow{
          record.pid,
          record.id,
          record.title,
          appName,
          record.frame,
          kindOfFocused(record.ownerName, type, window.modal, window.hints.resizable())};
    }
    // Docks and notifications stand where they stand whatever is in front: no popups of anyone's.
    const bool standing = record.layer == kDockLayer ||
                          window.type == "_NET_WM_WINDOW_TYPE_NOTIFICATION" ||
                          window.type == "_NET_WM_WINDOW_TYPE_DOCK";
    if (!standing && isOverlay(record, focus, ownPID, displays)) {
      observation.overlays.push_back({record.pid, record.id, record.title,
                                      appName.empty() ? record.ownerName : appName, record.frame,
                                      WindowKind::transient});
    }
  }
  return observation;
}

}  // namespace

X11FocusObserver::X11FocusObserver(const X11WindowSystem& system) : core_(system.core()) {}

asio::awaitable<FocusObservation> X11FocusObserver::observe(FocusedWindow focus,
                                                            std::vector<DisplayInfo> displays) {
  auto work = runOn(core_->strand, [core = core_, focus, displays = std::move(displays)] {
    return observeNow(*core, focus, displays);
  });
  co_return co_await std::move(work);
}

}  // namespace kelvaron::host
