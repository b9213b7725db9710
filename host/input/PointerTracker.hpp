#pragma once

#include <deque>
#include <optional>
#include <vector>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// A point of the desktop in points, origin at the top left of the main display.
struct Point {
  double x = 0, y = 0;
  friend bool operator==(const Point&, const Point&) = default;
};

// Where the injector believes the pointer is. The real pointer lags behind the moves the injector
// makes, so a reading near one of its recent moves is no news; a reading elsewhere means somebody
// else moved it (a local user, an application's warp), and replaces the belief.
class PointerTracker {
 public:
  static constexpr double kTolerance = 1.5;  // points, on each axis
  static constexpr double kMemory = 0.5;     // seconds
  static constexpr std::size_t kMaxRecent = 128;

  // `now` in seconds on a monotonic clock. True when the belief was replaced.
  bool observe(std::optional<Point> real, double now);
  // The injector has just moved the pointer to `point`.
  void record(Point point, double now);

  const std::optional<Point>& position() const { return position_; }

 private:
  struct Sample {
    Point point;
    double at = 0;
  };
  std::optional<Point> position_;
  std::deque<Sample> recent_;  // oldest first
};

// `point` if it lies on a display, else the nearest pixel of the nearest display (the earlier in
// the list on a tie). Displays with no area are passed over; with none left, `point` stays.
Point clampToDisplays(Point point, const std::vector<DisplayFrame>& displays);

}  // namespace kelvaron::host
