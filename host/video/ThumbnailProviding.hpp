#pragma once

#include <asio/awaitable.hpp>
#include <cstdint>
#include <optional>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// Small pictures of the displays, for the device's display picker.
class ThumbnailProviding {
 public:
  virtual ~ThumbnailProviding() = default;
  // A JPEG of the display at most `maxWidth` pixels wide, in its proportions; nothing when the
  // display is gone or cannot be read. Does its work off the caller's executor.
  virtual asio::awaitable<std::optional<Data>> thumbnail(std::uint32_t displayID, int maxWidth) = 0;
};

}  // namespace kelvaron::host
