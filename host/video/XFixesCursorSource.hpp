#pragma once

#include <memory>
#include <string>

#include "host/video/CursorSource.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::host {

// The pointer's image on an X server, through XFixes. The server tells of every change of the
// cursor shown (DisplayCursorNotify, read as it comes), so a poll that finds no change and is given
// the token of the last image answers at once on the caller's thread; otherwise it reads the image
// (GetCursorImage) and sends its PNG when the caller does not have it yet.
//
// Points are pixels on an X screen without scaling. On a HiDPI screen (Xft.dpi 192, a desktop's
// scale factor of 2) cursor themes hand out images at that many times their size: a point would
// then be `scale` pixels, the image already the bitmap at twice its size for a scale of 2, and hot
// spot and size in points the pixels divided by the scale. This source takes the scale as 1.
//
// Without a server, or one without XFixes, a poll yields nothing and the failure is logged once; a
// later poll connects again, at most once a second.
class XFixesCursorSource : public CursorSource {
 public:
  // The X work runs on a strand of `executor` (the host hands it a thread pool), never on the
  // caller's. `displayName` empty: $DISPLAY. Connects at the first poll.
  XFixesCursorSource(const Executor& executor, std::string displayName);
  ~XFixesCursorSource() override;
  XFixesCursorSource(const XFixesCursorSource&) = delete;
  XFixesCursorSource& operator=(const XFixesCursorSource&) = delete;

  asio::awaitable<std::optional<CursorPoll>> poll(std::optional<std::uint64_t> token) override;

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace kelvaron::host
