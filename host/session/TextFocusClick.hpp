#pragma once

#include <optional>

#include "host/desktop/TextFocus.hpp"
#include "host/input/ClickRecord.hpp"

namespace kelvaron::host {

// How recent a click must be, and how far outside the text element it may land, to have moved
// the keyboard focus there.
inline constexpr double kClickFocusMaxAge = 1.5;  // seconds
inline constexpr double kClickFocusSlop = 4;      // points on each side

// Whether the client's click put the focus into `next`: it is text with a frame, `previous` was
// not text of the same kind, and the click (taken at uptime `now`) came at most
// `kClickFocusMaxAge` ago inside the frame grown by `kClickFocusSlop`.
bool focusedByClick(const std::optional<TextFocus>& previous, const TextFocus& next,
                    const std::optional<ClickRecord::Click>& click, double now);

}  // namespace kelvaron::host
