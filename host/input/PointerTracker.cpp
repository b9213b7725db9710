#include "host/input/PointerTracker.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kelvaron::host {

namespace {

bool near(Point a, Point b) {
  return std::abs(a.x - b.x) <= PointerTracker::kTolerance &&
         std::abs(a.y - b.y) <= PointerTracker::kTolerance;
}

}  // namespace

bool PointerTracker::observe(std::optional<Point> real, double now) {
  if (!real) return false;
  if (!position_) {
    position_ = real;  // the first reading is no resync
    return false;
  }
  if (near(*real, *position_)) return false;
  std::erase_if(recent_, [now](const Sample& s) { return now - s.at > kMemory; });
  if (std::ranges::any_of(recent_, [&](const Sample& s) { return near(s.point, *real); })) {
    return false;  // the server is merely behind our own moves
  }
  position_ = real;
  return true;
}

void PointerTracker::record(Point point, double now) {
  // The old place counts as current until this instant.
  if (position_) recent_.push_back({*position_, now});
  position_ = point;
  recent_.push_back({point, now});
  while (recent_.size() > kMaxRecent) recent_.pop_front();
}

Point clampToDisplays(Point point, const std::vector<DisplayFrame>& displays) {
  auto inside = [&](const DisplayFrame& d) {
    return point.x >= d.x && point.x < double(d.x) + d.width && point.y >= d.y &&
           point.y < double(d.y) + d.height;
  };
  if (displays.empty() || std::ranges::any_of(displays, inside)) return point;
  std::optional<Point> best;
  double bestDistance = std::numeric_limits<double>::infinity();
  for (const DisplayFrame& d : displays) {
    if (!(d.width > 0) || !(d.height > 0)) continue;
    const double minX = d.x, minY = d.y;
    const double lastX = std::max(minX, minX + d.width - 1);
    const double lastY = std::max(minY, minY + d.height - 1);
    const Point candidate{std::min(std::max(point.x, minX), lastX),
                          std::min(std::max(point.y, minY), lastY)};
    const double dx = candidate.x - point.x, dy = candidate.y - point.y;
    const double distance = dx * dx + dy * dy;
    if (distance < bestDistance) {
      bestDistance = distance;
      best = candidate;
    }
  }
  return best.value_or(point);
}

}  // namespace kelvaron::host
