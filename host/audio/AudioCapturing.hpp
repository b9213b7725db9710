#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>

namespace kelvaron::host {

// What a capture delivers: interleaved float samples at this rate and channel count.
struct AudioFormat {
  double sampleRate = 0;
  int channels = 0;
  friend bool operator==(const AudioFormat&, const AudioFormat&) = default;
};

// Why audio capture cannot run; the text is for a person.
class AudioCaptureError : public std::runtime_error {
 public:
  enum class Kind { permissionDenied, failed };

  // The sound server refused this program access to its sound.
  static AudioCaptureError permissionDenied(const std::string& text) {
    return {Kind::permissionDenied, text};
  }
  static AudioCaptureError failed(const std::string& text) { return {Kind::failed, text}; }

  Kind kind() const { return kind_; }

 private:
  AudioCaptureError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}

  Kind kind_;
};

// The computer's sound, as the user hears it. Start and stop are called from one owner at a time;
// the callbacks arrive on a thread of the capture's own and must not call start or stop.
class AudioCapturing {
 public:
  // A batch of interleaved samples and the time of its first frame, in microseconds on the
  // clock of the video frames' capture times.
  using SamplesCallback =
      std::function<void(std::span<const float> samples, std::uint64_t ptsMicros)>;
  // Capture ended by itself (the sound server went away); called at most once per start.
  using FailureCallback = std::function<void(const std::string& text)>;

  virtual ~AudioCapturing() = default;

  // `mute` keeps the computer's speakers silent while the phone plays its sound. A running
  // capture is stopped first. Throws AudioCaptureError.
  virtual AudioFormat start(bool mute, SamplesCallback onSamples, FailureCallback onFailure) = 0;
  // Idempotent; once it returns no callback runs until the next start.
  virtual void stop() = 0;
};

// For a computer without a way to capture sound.
class UnavailableAudioCapture final : public AudioCapturing {
 public:
  AudioFormat start(bool, SamplesCallback, FailureCallback) override {
    throw AudioCaptureError::failed("Audio capture is not available");
  }
  void stop() override {}
};

}  // namespace kelvaron::host
