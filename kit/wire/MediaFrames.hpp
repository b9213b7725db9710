#pragma once

#include <cstdint>
#include <vector>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron {

inline constexpr std::uint8_t kVideoFrameType = 128;
inline constexpr std::uint8_t kAudioPacketType = 129;

// One encoded picture. `parameterSets` are raw NAL units; `payload` is the access unit as
// 4-byte length-prefixed NAL units.
struct VideoFrame {
  std::uint32_t displayID = 0;
  std::uint64_t frameNumber = 0;
  std::uint64_t captureTimeNs = 0;
  bool isKeyframe = false;
  CodecProfile profile = CodecProfile::hevcMain;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  NormalizedRect sourceRect;
  std::vector<SharedBytes> parameterSets;
  SharedBytes payload;
  friend bool operator==(const VideoFrame&, const VideoFrame&) = default;
};

struct AudioPacket {
  std::uint64_t ptsMicros = 0;
  SharedBytes data;
  friend bool operator==(const AudioPacket&, const AudioPacket&) = default;
};

}  // namespace kelvaron
