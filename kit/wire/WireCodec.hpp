#pragma once

#include <cstdint>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/FrameReader.hpp"
#include "kit/wire/MediaFrames.hpp"
#include "kit/wire/Message.hpp"

// Encoders yield complete frames, length prefix included, and never fail. Decoders take one
// frame's bytes behind its length prefix and throw `WireError`.
namespace kelvaron::WireCodec {

Data encodeMessage(const Message& message);
Data encodeVideoFrame(const VideoFrame& frame);
Data encodeAudioPacket(const AudioPacket& packet);

// Decodes the payload of a message whose type byte has already been read. Bytes behind the last
// known field are ignored.
Message decodeMessage(std::uint8_t type, FrameReader& reader);
// These read the type byte themselves and fail with `unknownType` on any other type.
Message decodeMessage(SharedBytes frame);
VideoFrame decodeVideoFrame(SharedBytes frame);
AudioPacket decodeAudioPacket(SharedBytes frame);

}  // namespace kelvaron::WireCodec
