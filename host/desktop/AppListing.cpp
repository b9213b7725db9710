#include "host/desktop/AppListing.hpp"

#include <algorithm>
#include <limits>
#include <string_view>

namespace kelvaron::host {

namespace {

bool bigEnough(const Rect& frame) {
  return frame.width >= kMinListedWidth && frame.height >= kMinListedHeight;
}

// The kind of window a person works in: an ordinary layer and a useful size.
bool isWorkWindow(const WindowRecord& window) {
  return window.layer == kNormalLayer && bigEnough(window.frame);
}

double overlapArea(const Rect& rect, const DisplayFrame& frame) {
  const double width = std::min(rect.x + rect.width, double(frame.x) + frame.width) -
                       std::max(rect.x, double(frame.x));
  const double height = std::min(rect.y + rect.height, double(frame.y) + frame.height) -
                        std::max(rect.y, double(frame.y));
  return width > 0 && height > 0 ? width * height : 0;
}

// From `value` to the span [start, start + length]: 0 inside it.
double distanceToSpan(double value, double start, double length) {
  if (value < start) return start - value;
  if (value > start + length) return value - (start + length);
  return 0;
}

// Compares bytes with ASCII letters folded to lower case; other bytes (UTF-8 sequences) compare
// as they are. A collation of the user's locale would order accented names better, but this one
// is the same on every computer and a strict weak order whatever the names hold.
bool lessIgnoringCase(std::string_view a, std::string_view b) {
  const auto fold = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte - 'A' + 'a') : byte;
  };
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [&](char x, char y) { return fold(x) < fold(y); });
}

DisplayFrame narrowed(const Rect& rect) {
  return {float(rect.x), float(rect.y), float(rect.width), float(rect.height)};
}

}  // namespace

std::optional<std::size_t> displayIndexOf(const Rect& rect,
                                          const std::vector<DisplayInfo>& displays) {
  std::optional<std::size_t> best;
  double bestArea = 0;
  for (std::size_t i = 0; i < displays.size(); ++i) {
    const double area = overlapArea(rect, displays[i].frame);
    if (area > bestArea) best = i, bestArea = area;
  }
  if (best) return best;

  const double centreX = rect.x + rect.width / 2, centreY = rect.y + rect.height / 2;
  double bestDistance = std::numeric_limits<double>::infinity();
  for (std::size_t i = 0; i < displays.size(); ++i) {
    const DisplayFrame& frame = displays[i].frame;
    const double dx = distanceToSpan(centreX, frame.x, frame.width);
    const double dy = distanceToSpan(centreY, frame.y, frame.height);
    const double distance = dx * dx + dy * dy;
    if (!best || distance < bestDistance) best = i, bestDistance = distance;
  }
  return best;
}

std::vector<AppInfo> assembleAppList(const AppListInput& input) {
  std::set<std::int32_t> hidden;
  for (const auto& app : input.apps) {
    if (app.isHidden && app.pid > 0) hidden.insert(app.pid);
  }
  std::set<std::int32_t> withOnScreenWindow;
  for (const auto& window : input.windows) {
    if (window.isOnScreen && isWorkWindow(window)) withOnScreenWindow.insert(window.pid);
  }

  // Which windows stay, and as what. An off-screen window stays when its application is hidden,
  // or when it is known to be minimised; with nobody to ask, it is taken for minimised unless its
  // application shows another window, when it is more likely on another workspace or a surface
  // the application keeps unmapped.
  std::vector<WindowRecord> windows;
  for (const auto& record : input.windows) {
    if (!isWorkWindow(record)) continue;
    WindowRecord window = record;
    window.isMinimized = false;
    if (!window.isOnScreen) {
      if (hidden.contains(window.pid)) {
        // Kept as it is: off screen with its application.
      } else if (const auto answer = input.minimized.find(window.pid);
                 answer != input.minimized.end()) {
        if (!answer->second.contains(window.id)) continue;
        window.isMinimized = true;
      } else {
        if (withOnScreenWindow.contains(window.pid)) continue;
        window.isMinimized = true;
      }
    }
    windows.push_back(std::move(window));
  }

  std::vector<AppInfo> apps;
  for (const auto& record : input.apps) {
    if (!record.isRegular) continue;
    AppInfo app;
    app.pid = record.pid;
    app.bundleID = record.bundleID;
    app.name = record.name;
    if (const auto icon = input.icons.find(record.bundleID); icon != input.icons.end()) {
      app.icon = icon->second;
    }
    app.isFrontmost = record.isFrontmost;
    for (const bool onScreen : {true, false}) {
      for (const auto& window : windows) {
        if (window.pid != record.pid || window.isOnScreen != onScreen) continue;
        const auto display = displayIndexOf(window.frame, input.displays);
        app.windows.push_back({.id = window.id,
                               .title = window.title,
                               .frame = narrowed(window.frame),
                               .displayID = display ? input.displays[*display].id : 0,
                               .isOnScreen = window.isOnScreen,
                               .isMinimized = window.isMinimized});
      }
    }
    apps.push_back(std::move(app));
  }

  const bool anyWindows = std::any_of(apps.begin(), apps.end(),
                                      [](const AppInfo& app) { return !app.windows.empty(); });
  if (anyWindows) std::erase_if(apps, [](const AppInfo& app) { return app.windows.empty(); });

  std::stable_sort(apps.begin(), apps.end(), [](const AppInfo& a, const AppInfo& b) {
    if (a.isFrontmost != b.isFrontmost) return a.isFrontmost;
    return lessIgnoringCase(a.name, b.name);
  });
  return apps;
}

}  // namespace kelvaron::host
