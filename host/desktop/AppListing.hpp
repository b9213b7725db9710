#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/desktop/WindowSystem.hpp"

// The rules that turn the window system's records into the client's application list: pure, so
// that they can be tested without a desktop.
namespace kelvaron::host {

// Windows smaller than this are no work surface: not listed, not followed.
inline constexpr double kMinListedWidth = 100, kMinListedHeight = 60;

// The display that shows the most of `rect` (a later one only when strictly more); when none
// meets it, the nearest to its centre (the earlier on a tie). Nothing with no displays.
std::optional<std::size_t> displayIndexOf(const Rect& rect, const std::vector<DisplayInfo>& displays);

struct AppListInput {
  std::vector<RunningAppRecord> apps;
  std::vector<WindowRecord> windows;  // front to back
  // Per process, the ids of its windows known to be minimised; a process without an entry could
  // not be asked.
  std::map<std::int32_t, std::set<std::uint32_t>> minimized;
  std::vector<DisplayInfo> displays;
  std::map<std::string, Data> icons;  // by bundle ID
};

// The list as the client gets it: regular applications with their windows (on-screen ones first),
// the front-most first and the rest by name, ignoring case. Off-screen windows stay when they are
// minimised or their application is hidden; when some application has windows, those without any
// are left out.
std::vector<AppInfo> assembleAppList(const AppListInput& input);

}  // namespace kelvaron::host
