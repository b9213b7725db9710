#pragma once

#include <memory>
#include <string>

#include "host/video/ThumbnailProviding.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// Pictures of an X server's displays: the display's rectangle of the root window, read with
// GetImage, scaled with a box filter to the width asked for (never beyond the display's own) and
// made a JPEG of quality 60. A display is found by its ID as the display list names it (RANDR's
// monitors, host/x11/RandrMonitors), so an ID from `RandrDisplayManager` finds its display here.
//
// A thumbnail is asked for about once a second per display, so the plain GetImage serves: at
// 1920x1080 its reply of 8 MB takes a few milliseconds, and no shared memory is held between.
// Without a server a thumbnail is nothing and the failure is logged once; a later one connects
// again, at most once a second.
class X11Thumbnails : public ThumbnailProviding {
 public:
  // The X work and the JPEG run on a strand of `executor` (the host hands it a thread pool), never
  // on the caller's. `displayName` empty: $DISPLAY. Connects at the first thumbnail.
  X11Thumbnails(const Executor& executor, std::string displayName);
  ~X11Thumbnails() override;
  X11Thumbnails(const X11Thumbnails&) = delete;
  X11Thumbnails& operator=(const X11Thumbnails&) = delete;

  // `maxWidth` below 1 gives nothing.
  asio::awaitable<std::optional<Data>> thumbnail(std::uint32_t displayID, int maxWidth) override;

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace kelvaron::host
