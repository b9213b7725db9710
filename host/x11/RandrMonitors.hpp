#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

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

// The names of monitors' atoms on one server. Atoms live as long as the server, so their names
// are kept; a bound keeps a server that makes monitors under ever new names from growing the cache
// without end.
class MonitorNames {
 public:
  // Asks the server in one round trip for the names not known yet. A monitor without a readable
  // name is "Display " and its place in the list, from 1, so that it has an ID all the same.
  std::vector<std::string> of(xcb_connection_t* c, const std::vector<xcb_atom_t>& atoms);

 private:
  std::unordered_map<xcb_atom_t, std::string> names_;
};

// The monitors of the screen of `root` with their names; nothing when the server refuses.
std::vector<RandrMonitor> queryNamedMonitors(xcb_connection_t* c, xcb_window_t root,
                                             MonitorNames& names);

// Tells the server that this client speaks RANDR 1.`clientMinor` and checks that it has monitors
// (1.5); the server's version. Throws std::runtime_error with a text for a person.
std::pair<std::uint32_t, std::uint32_t> requireMonitors(xcb_connection_t* c,
                                                        std::uint32_t clientMinor);

// Which monitor is the main display: the primary, else the first at the root's origin, else the
// first. 0 for an empty list.
std::size_t mainMonitorIndex(const std::vector<RandrMonitor>& monitors);

// The display ID of a monitor name: FNV-1a (32-bit) of its bytes, never 0.
std::uint32_t displayIDForMonitorName(std::string_view name);

// The display list of a set of monitors; frames are measured from the main display's top left
// corner. The main display comes first, then the others by ascending ID. Names that hash alike get
// the next free ID, in the order of their names.
std::vector<DisplayInfo> displayListFromMonitors(const std::vector<RandrMonitor>& monitors);

}  // namespace kelvaron::host
