// Arbitrary bytes into a WireDecoder, cut into pieces of a size the input chooses.
// Input: byte 0 picks the reader (its value modulo 3: messages, video, audio) and the piece size
// (its value divided by 3, plus 1); the rest is the stream.
//
// Beyond "no crash, no leak", every value that decodes must come back unchanged through
// encode → decode once it is in the writer's canonical form (writers cut some arrays that
// readers accept), so the two directions cannot disagree.

#include <cstdint>
#include <cstdlib>
#include <span>

#include "kit/wire/WireCodec.hpp"
#include "kit/wire/WireDecoder.hpp"

namespace {

using namespace kelvaron;

enum class Reader { messages, video, audio };

void checkCanonical(const Data& encoded, Reader reader) {
  WireDecoder again;
  again.append(encoded);
  Data reencoded;
  switch (reader) {
    case Reader::messages:
      reencoded = WireCodec::encodeMessage(*again.nextMessage());
      break;
    case Reader::video:
      reencoded = WireCodec::encodeVideoFrame(*again.nextVideoFrame());
      break;
    case Reader::audio:
      reencoded = WireCodec::encodeAudioPacket(*again.nextAudioPacket());
      break;
  }
  if (reencoded != encoded) std::abort();
}

// Decodes what is there; false once the decoder is poisoned.
bool drain(WireDecoder& decoder, Reader reader) {
  for (;;) {
    try {
      Data encoded;
      switch (reader) {
        case Reader::messages: {
          auto m = decoder.nextMessage();
          if (!m) return true;
          encoded = WireCodec::encodeMessage(*m);
          break;
        }
        case Reader::video: {
          auto v = decoder.nextVideoFrame();
          if (!v) return true;
          encoded = WireCodec::encodeVideoFrame(*v);
          break;
        }
        case Reader::audio: {
          auto a = decoder.nextAudioPacket();
          if (!a) return true;
          encoded = WireCodec::encodeAudioPacket(*a);
          break;
        }
      }
      checkCanonical(encoded, reader);
    } catch (const WireError&) {
      if (decoder.poisoned()) return false;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size < 1) return 0;
  const auto reader = static_cast<Reader>(bytes[0] % 3);
  const std::size_t piece = bytes[0] / 3u + 1u;
  std::span<const std::uint8_t> stream(bytes + 1, size - 1);
  WireDecoder decoder;
  while (!stream.empty()) {
    const std::size_t n = std::min(piece, stream.size());
    decoder.append(stream.first(n));
    stream = stream.subspan(n);
    if (!drain(decoder, reader)) return 0;
  }
  return 0;
}
