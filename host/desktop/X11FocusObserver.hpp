#pragma once

#include <memory>

#include "host/desktop/FocusFollowing.hpp"

namespace kelvaron::host {

class X11WindowSystem;
struct X11WindowCore;

// What is in front on an X11 desktop: the active window (_NET_ACTIVE_WINDOW) and the top-levels
// over the streamed window, managed clients and override-redirect popups (menus, tooltips) alike,
// in the server's stacking order. It reads through the connection of a window system's desktop,
// on that system's strand; awaitables complete on the caller's executor.
class X11FocusObserver : public FocusObserving {
 public:
  explicit X11FocusObserver(const X11WindowSystem& system);

  asio::awaitable<FocusObservation> observe(FocusedWindow focus,
                                            std::vector<DisplayInfo> displays) override;

 private:
  std::shared_ptr<X11WindowCore> core_;
};

}  // namespace kelvaron::host
