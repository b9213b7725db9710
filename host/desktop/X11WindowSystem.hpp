#pragma once

#include <memory>
#include <string>

#include "host/desktop/WindowSystem.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

struct X11WindowCore;

// The applications and windows of an X11 desktop under an EWMH window manager: its managed
// clients (_NET_CLIENT_LIST_STACKING), grouped by the process the X server says made them,
// identified through their desktop entries; brought forward and resized by asking the window
// manager as a pager would. Frames include the decorations (_NET_FRAME_EXTENTS) and are in points
// of the desktop, from the main display's top left corner.
//
// All X work runs on a strand of `executor` with a connection of its own, never on the caller's;
// awaitables complete on the caller's executor. Without a server lists are empty and controls do
// nothing, the failure logged once; a later call connects again, at most once a second.
class X11WindowSystem : public AppProviding, public WindowControlling, public WindowTracking {
 public:
  // `displayName` empty: $DISPLAY. Starts connecting at once, so that the recent applications
  // are followed from then on.
  X11WindowSystem(const Executor& executor, std::string displayName);
  ~X11WindowSystem() override;
  X11WindowSystem(const X11WindowSystem&) = delete;
  X11WindowSystem& operator=(const X11WindowSystem&) = delete;

  asio::awaitable<std::vector<AppInfo>> apps() override;
  // Clients come or go, or another one becomes active; debounced 0.3 s.
  ChangeStream changes() override;
  asio::awaitable<std::vector<std::int32_t>> recentPIDs() override;
  ChangeStream recentChanges() override;

  asio::awaitable<void> activate(std::int32_t pid) override;
  asio::awaitable<bool> raise(std::int32_t pid, AppWindowRef window) override;
  // Waits up to half a second for the window manager to apply the new size.
  asio::awaitable<std::optional<Rect>> resize(std::int32_t pid, AppWindowRef window,
                                              Rect frame) override;
  // Through the window manager (_NET_CLOSE_WINDOW), as a pager would.
  asio::awaitable<bool> closeAll(std::int32_t pid) override;

  asio::awaitable<std::optional<WindowRecord>> window(std::uint32_t id) override;
  asio::awaitable<std::vector<WindowRecord>> windows(std::int32_t pid) override;
  asio::awaitable<std::optional<Rect>> visibleFrame(std::uint32_t displayID) override;

  // What the focus observer of this desktop shares.
  const std::shared_ptr<X11WindowCore>& core() const { return core_; }

 private:
  std::shared_ptr<X11WindowCore> core_;
};

}  // namespace kelvaron::host
