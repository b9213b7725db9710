#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
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

// A monitor as RANDR describes it, in the root window's pixels.
struct RandrMonitor {
  std::string name;
  bool primary = false;
  std::int32_t x = 0, y = 0;
  std::uint32_t width = 0, height = 0;
};

// The monitors of the screen of `root`, names left empty (their atoms go to `nameAtoms`); nothing
// when the server refuses. One round trip.
std::vector<RandrMonitor> queryMonitors(xcb_connection_t* c, xcb_window_t root,
                                        std::vector<xcb_atom_t>* nameAtoms = nullptr);

// Which monitor is the main display: the primary, else the first at the root's origin, else the
// first. 0 for an empty list.
std::size_t mainMonitorIndex(const std::vector<RandrMonitor>& monitors);

// The display ID of a monitor name: FNV-1a (32-bit) of its bytes, never 0.
std::uint32_t displayIDForMonitorName(std::string_view name);

// The display list of a set of monitors; frames are measured from the main display's top left
// corner. The main
// display comes first, then the others by ascending ID. Names that hash alike get the next free ID,
// in the order of their names.
std::vector<DisplayInfo> displayListFromMonitors(const std::vector<RandrMonitor>& monitors);

}  // namespace kelvaron::host
