#pragma once

#include <asio/awaitable.hpp>
#include <cstdint>
#include <optional>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// One image of the pointer: a PNG at twice its size in points, and its hot spot in points from
// the top left.
struct CursorShapeData {
  Data png;
  float hotspotX = 0, hotspotY = 0;
  float pointSize = 0;  // the image's width in points
  friend bool operator==(const CursorShapeData&, const CursorShapeData&) = default;
};

// What one look at the pointer found: the identity of its image (`token`, the same for the same
// image), whether it shows, and the image itself only when its token differs from the one the
// caller already has.
struct CursorPoll {
  std::uint64_t token = 0;
  bool visible = true;
  std::optional<CursorShapeData> shape;
};

// The computer's pointer image.
class CursorSource {
 public:
  virtual ~CursorSource() = default;
  // Nothing when no cursor can be read now. Does its work off the caller's executor.
  virtual asio::awaitable<std::optional<CursorPoll>> poll(std::optional<std::uint64_t> token) = 0;
};

}  // namespace kelvaron::host
