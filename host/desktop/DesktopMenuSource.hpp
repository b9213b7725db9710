#pragma once

#include <memory>
#include <string>

#include "host/desktop/MenuSource.hpp"
#include "host/desktop/WindowSystem.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// The menu bars of applications on an X11 desktop, read where they publish them, in this order:
// GTK's exported menu model (org.gtk.Menus and org.gtk.Actions on the session bus, named by the
// window's _GTK_* properties), a dbusmenu (named by the window's _KDE_NET_WM_APPMENU_* properties
// or by a running com.canonical.AppMenu.Registrar), and the accessibility tree's menu bar (AT-SPI
// over the accessibility bus). The route a process's tree came from is remembered, and presses
// go the same way.
//
// All D-Bus and X work runs on a thread of this object's own with a GLib main context, on which
// the menus' change signals arrive too; every call is bounded by the read's 1.5 s and a read
// holds at most 3200 items, or it gives nothing. `apps` tells which application is in front and
// when that changes. Make one for the process.
class DesktopMenuSource : public MenuSource {
 public:
  // `displayName` empty: $DISPLAY. The buses are the session's ($DBUS_SESSION_BUS_ADDRESS) and the
  // accessibility bus it names (or $AT_SPI_BUS_ADDRESS).
  DesktopMenuSource(const Executor& executor, std::shared_ptr<AppProviding> apps,
                    std::string displayName);
  ~DesktopMenuSource() override;
  DesktopMenuSource(const DesktopMenuSource&) = delete;
  DesktopMenuSource& operator=(const DesktopMenuSource&) = delete;

  asio::awaitable<std::optional<FrontApp>> frontmost() override;
  ChangeStream changes() override;
  asio::awaitable<std::optional<std::vector<MenuNode>>> readMenus(std::int32_t pid) override;
  asio::awaitable<MenuPressResult> press(std::int32_t pid, std::vector<std::string> path) override;

  // The tree as read, before the device's rules are applied.
  asio::awaitable<std::optional<std::vector<RawMenuItem>>> readRaw(std::int32_t pid);

 private:
  struct Core;
  std::shared_ptr<AppProviding> apps_;
  std::unique_ptr<Core> core_;
  Task follow_;
};

}  // namespace kelvaron::host
