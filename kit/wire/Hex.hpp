#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// Bytes as lower-case hexadecimal text, and back; nothing for text that is not whole pairs of hex
// digits.
std::string hexText(std::span<const std::uint8_t> bytes);
std::optional<Data> hexBytes(std::string_view text);

}  // namespace kelvaron
