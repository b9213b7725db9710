#pragma once

#include <xcb/xcb.h>

#include <mutex>
#include <set>
#include <string>

#include "host/session/PowerManaging.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

// Keeps an X display awake through the MIT-SCREEN-SAVER extension: while any assertion is held
// the screen saver (and with it the display's power saving) is suspended; user activity resets
// its timer, which wakes a blanked display. Safe from any thread.
class X11PowerManager : public PowerManaging {
 public:
  // `displayName` empty: $DISPLAY. Connects at first use, and again after the server went away.
  explicit X11PowerManager(std::string displayName);
  ~X11PowerManager() override;

  std::optional<std::uint32_t> takeDisplayAssertion(const std::string& name) override;
  void releaseAssertion(std::uint32_t id) override;
  void stopAllAssertions() override;
  void declareUserActivity() override;

 private:
  bool connected();
  void suspend(bool on);

  const std::string displayName_;
  std::mutex lock_;
  xcb_connection_t* connection_ = nullptr;
  std::set<std::uint32_t> held_;
  std::uint32_t nextID_ = 1;
  Logger log_{"io.dovka.tovu.host", "session"};
};

}  // namespace kelvaron::host
