#pragma once

#include <string>
#include <string_view>

#include "kit/wire/Bytes.hpp"

namespace kelvaron::test {

// The bytes of hexadecimal text, two digits each.
inline Data hex(std::string_view text) {
  Data out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    out.push_back(static_cast<std::uint8_t>(std::stoul(std::string(text.substr(i, 2)), 0, 16)));
  }
  return out;
}

}  // namespace kelvaron::test
