#pragma once

#include "kit/wire/WireTypes.hpp"

namespace kelvaron {

// For a person: "HEVC 4:2:0" and so on.
inline const char* profileLabel(CodecProfile profile) {
  switch (profile) {
    case CodecProfile::hevcMain:
      return "HEVC 4:2:0";
    case CodecProfile::hevcMain10:
      return "HEVC 4:2:0 10-bit";
    case CodecProfile::hevcMain444:
      return "HEVC 4:4:4";
    case CodecProfile::hevcMain44410:
      return "HEVC 4:4:4 10-bit";
  }
  return "unknown";
}

// The name of the enumeration case, as notes and errors quote it.
inline const char* profileCaseName(CodecProfile profile) {
  switch (profile) {
    case CodecProfile::hevcMain:
      return "hevcMain";
    case CodecProfile::hevcMain10:
      return "hevcMain10";
    case CodecProfile::hevcMain444:
      return "hevcMain444";
    case CodecProfile::hevcMain44410:
      return "hevcMain44410";
  }
  return "unknown";
}

}  // namespace kelvaron
