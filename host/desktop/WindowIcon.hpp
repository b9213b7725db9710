#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::host {

// The PNG of an application's icon from a window's _NET_WM_ICON value (images of width, height and
// that many straight-alpha ARGB words, one after another): the image whose larger side is nearest
// to `side` (the larger one on a tie), scaled to fit a `side` by `side` square in its proportions,
// centred on transparency. Nothing when the value holds no whole image.
std::optional<Data> windowIconPng(std::span<const std::uint32_t> property, int side = 128);

}  // namespace kelvaron::host
