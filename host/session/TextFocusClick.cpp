#include "host/session/TextFocusClick.hpp"

namespace kelvaron::host {

bool focusedByClick(const std::optional<TextFocus>& previous, const TextFocus& next,
                    const std::optional<ClickRecord::Click>& click, double now) {
  if (!next.isText || !next.frame || next.frame->width <= 0 || next.frame->height <= 0) {
    return false;
  }
  if (previous && previous->isText && previous->kind == next.kind) return false;
  if (!click) return false;
  const double age = now - click->time;
  if (age < 0 || age > kClickFocusMaxAge) return false;
  const Rect& frame = *next.frame;
  const Point& point = click->point;
  return point.x >= frame.x - kClickFocusSlop && point.y >= frame.y - kClickFocusSlop &&
         point.x <= frame.x + frame.width + kClickFocusSlop &&
         point.y <= frame.y + frame.height + kClickFocusSlop;
}

}  // namespace kelvaron::host
