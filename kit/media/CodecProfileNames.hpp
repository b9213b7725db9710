#pragma once

#include <cstddef>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron {

namespace detail {
struct CodecProfileNames {
  const char* label;
  const char* caseName;
};
// In the order of the enumeration's values.
inline constexpr CodecProfileNames kCodecProfileNames[] = {
    {"HEVC 4:2:0", "hevcMain"},
    {"HEVC 4:2:0 10-bit", "hevcMain10"},
    {"HEVC 4:4:4", "hevcMain444"},
    {"HEVC 4:4:4 10-bit", "hevcMain44410"},
};
inline const CodecProfileNames* namesOf(CodecProfile profile) {
  const auto index = static_cast<std::size_t>(profile);
  return index < std::size(kCodecProfileNames) ? &kCodecProfileNames[index] : nullptr;
}
}  // namespace detail

// For a person: "HEVC 4:2:0" and so on.
inline const char* profileLabel(CodecProfile profile) {
  const auto* names = detail::namesOf(profile);
  return names ? names->label : "unknown";
}

// The name of the enumeration case, as notes and errors quote it.
inline const char* profileCaseName(CodecProfile profile) {
  const auto* names = detail::namesOf(profile);
  return names ? names->caseName : "unknown";
}

}  // namespace kelvaron
