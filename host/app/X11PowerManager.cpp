#include "host/app/X11PowerManager.hpp"

#include <xcb/screensaver.h>

#include <cstdlib>

namespace kelvaron::host {

X11PowerManager::X11PowerManager(std::string displayName) : displayName_(std::move(displayName)) {}

X11PowerManager::~X11PowerManager() {
  if (connection_) xcb_disconnect(connection_);  // the server lifts a suspension with its client
}

bool X11PowerManager::connected() {
  if (connection_ && !xcb_connection_has_error(connection_)) return true;
  if (connection_) xcb_disconnect(connection_);
  connection_ = xcb_connect(displayName_.empty() ? nullptr : displayName_.c_str(), nullptr);
  if (xcb_connection_has_error(connection_)) return false;
  const auto* extension = xcb_get_extension_data(connection_, &xcb_screensaver_id);
  if (!extension || !extension->present) {
    log_.error("The X server has no MIT-SCREEN-SAVER extension; the display may sleep");
  }
  // A new connection starts unsuspended: what is held must hold again.
  if (!held_.empty()) suspend(true);
  return true;
}

void X11PowerManager::suspend(bool on) {
  xcb_screensaver_suspend(connection_, on ? 1 : 0);
  xcb_flush(connection_);
}

std::optional<std::uint32_t> X11PowerManager::takeDisplayAssertion(const std::string& name) {
  std::lock_guard guard(lock_);
  if (!connected()) {
    log_.error("display-sleep assertion failed: no X server");
    return std::nullopt;
  }
  const std::uint32_t id = nextID_++;
  if (held_.empty()) suspend(true);
  held_.insert(id);
  log_.info("display kept awake: %s", name.c_str());
  return id;
}

void X11PowerManager::releaseAssertion(std::uint32_t id) {
  std::lock_guard guard(lock_);
  if (held_.erase(id) == 0 || !held_.empty()) return;
  if (connection_ && !xcb_connection_has_error(connection_)) suspend(false);
}

void X11PowerManager::stopAllAssertions() {
  std::lock_guard guard(lock_);
  if (held_.empty()) return;
  held_.clear();
  if (connection_ && !xcb_connection_has_error(connection_)) suspend(false);
}

void X11PowerManager::declareUserActivity() {
  std::lock_guard guard(lock_);
  if (!connected()) return;
  xcb_force_screen_saver(connection_, XCB_SCREEN_SAVER_RESET);
  xcb_flush(connection_);
}

}  // namespace kelvaron::host
