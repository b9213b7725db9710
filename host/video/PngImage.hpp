#pragma once

#include <cstdint>
#include <optional>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// An 8-bit straight-alpha RGBA PNG of IHDR, IDAT and IEND alone, rows top to bottom; nothing when
// libpng fails or memory runs out.
std::optional<Data> encodePng(const std::uint8_t* rgba, int width, int height);

}  // namespace kelvaron::host
