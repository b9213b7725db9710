#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "host/audio/AudioCapturing.hpp"
#include "host/audio/AudioEncoding.hpp"
#include "kit/wire/MediaFrames.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// Where the pipeline's output goes: the stream's configuration once, then each packet, which the
// sink takes (true) or refuses (false).
struct AudioSink {
  std::function<void(const AudioStreamConfig&)> config;
  std::function<bool(const AudioPacket&)> packet;
};

// The computer's sound from a capture through an encoder into a sink, for one audio run. Packets
// are stamped on a fixed grid from the first sample, so the receiver sees no jitter of the drain;
// a refused packet is a gap in the grid, not a shift.
class AudioPipeline : public std::enable_shared_from_this<AudioPipeline> {
 public:
  struct Counts {
    std::uint64_t sent = 0;
    std::uint64_t dropped = 0;
  };

  // `onFailure` hears when capture ends by itself, on the capture's thread.
  AudioPipeline(AudioMode mode, std::shared_ptr<AudioCapturing> capture,
                std::shared_ptr<const AudioEncoderFactory> encoders, AudioSink sink,
                std::function<void(const std::string&)> onFailure);

  // Throws AudioCaptureError: the capture's own, or "Audio encoder: …" when no encoder can take
  // the captured format.
  void start();
  void stop();
  Counts counts() const;

 private:
  void encode(std::span<const float> samples, std::uint64_t ptsMicros);

  const AudioMode mode_;
  const std::shared_ptr<AudioCapturing> capture_;
  const std::shared_ptr<const AudioEncoderFactory> encoders_;
  const AudioSink sink_;
  const std::function<void(const std::string&)> onFailure_;
  mutable std::mutex lock_;  // held while encoding: one source of samples per pipeline
  std::unique_ptr<AudioEncoding> encoder_;
  std::optional<std::uint64_t> anchorMicros_;
  std::uint64_t packetCount_ = 0;
  Counts counts_;
};

}  // namespace kelvaron::host
