#pragma once

#include <memory>
#include <string>

#include "host/desktop/WindowSystem.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// Pictures of windows from their own pixels (host/x11/X11WindowComposer), so a window covered by
// another still shows itself: each window's frame, decorations included, scaled with a box filter
// to the width asked for in the frame's proportions (height rounded, at least 2 pixels) and made a
// JPEG of quality 60. A window that is gone, minimised or unmapped gives nothing.
//
// Without a server, or one without Composite, there are no thumbnails and the failure is logged
// once; a later call connects again, at most once a second. Pixmaps are named for one read and
// freed at once: thumbnails are asked for now and then, and hold nothing of the server's between.
class X11WindowThumbnails : public WindowThumbnailProviding {
 public:
  // The X work and the JPEGs run on a strand of `executor` (the host hands it a thread pool),
  // never on the caller's. `displayName` empty: $DISPLAY. Connects at the first call.
  X11WindowThumbnails(const Executor& executor, std::string displayName);
  ~X11WindowThumbnails() override;
  X11WindowThumbnails(const X11WindowThumbnails&) = delete;
  X11WindowThumbnails& operator=(const X11WindowThumbnails&) = delete;

  // Ids are client windows as the window list gives them; `width` below 1 gives nothing, and
  // widths beyond 2048 are brought down to it.
  asio::awaitable<std::map<std::uint32_t, Data>> thumbnails(std::vector<std::uint32_t> ids,
                                                            int width) override;

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace kelvaron::host
