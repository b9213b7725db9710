#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/video/DisplayProviding.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// The displays of an X server: its RANDR 1.5 monitors, active ones only, and a change signal for
// every screen, CRTC, output or monitor change. A monitor is known by its name ("screen", "DP-1"),
// so its ID stays the same across restarts of the server. The list never fails: without a server
// it is empty, and the next call tries to connect again; the server going away is a change.
class RandrDisplayManager : public DisplayProviding {
 public:
  // `displayName` empty: $DISPLAY.
  RandrDisplayManager(const Executor& executor, std::string displayName);
  ~RandrDisplayManager() override;
  RandrDisplayManager(const RandrDisplayManager&) = delete;
  RandrDisplayManager& operator=(const RandrDisplayManager&) = delete;

  asio::awaitable<std::vector<DisplayInfo>> displays() override;
  ChangeStream changes() override;

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace kelvaron::host
