#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "host/audio/AudioCapturing.hpp"
#include "host/audio/AudioRoutingFile.hpp"

namespace kelvaron::host {

struct PulseAudioCaptureOptions {
  // Empty: the user's own sound server, as libpulse finds it ($PULSE_SERVER, then the session's
  // socket). PipeWire answers there too, through pipewire-pulse.
  std::string server;
  // Where the phone-only mode notes what it changed.
  std::filesystem::path routingFile = AudioRoutingFile::defaultLocation();
};

// Records the monitor of the default output through the PulseAudio client API: float samples at
// the output's rate, with its channels mixed down by the server to at most two, the encoder's
// limit. The host plays no sound itself, so it never hears itself. A sound server's thread only
// copies into a one-second ring; a thread of the capture's own drains it every 10 ms into the
// samples callback. With `mute`, the sound goes through `PhoneOnlyRouting` first.
class PulseAudioCapture final : public AudioCapturing {
 public:
  explicit PulseAudioCapture(PulseAudioCaptureOptions options = {});
  ~PulseAudioCapture() override;
  PulseAudioCapture(const PulseAudioCapture&) = delete;
  PulseAudioCapture& operator=(const PulseAudioCapture&) = delete;

  // Also puts back what an earlier run of the phone-only mode left, before anything else.
  AudioFormat start(bool mute, SamplesCallback onSamples, FailureCallback onFailure) override;
  void stop() override;

  // Puts back the sound routing that a host which died in the phone-only mode left; for the
  // host's start-up. Does nothing while a capture runs, whose routing is no leftover. Failures
  // are logged: there is nothing more a caller could do.
  void restoreLeftovers();

 private:
  class Session;

  const PulseAudioCaptureOptions options_;
  std::mutex lock_;
  std::unique_ptr<Session> session_;
};

}  // namespace kelvaron::host
