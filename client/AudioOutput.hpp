#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <span>
#include <string>

namespace kelvaron::client {

// Where the client's decoded sound goes.
class AudioOutput {
 public:
  virtual ~AudioOutput() = default;
  // Interleaved samples at the stream's rate and channel count. Never blocks for long.
  virtual void play(std::span<const float> samples) = 0;
  // How long until what was handed in last is heard, in milliseconds.
  virtual double delayMs() const = 0;
};

// The speakers, through the sound server. Throws FlowError when no sound server answers.
std::unique_ptr<AudioOutput> openPulseAudioOutput(std::uint32_t sampleRate, int channels);

// A 16-bit PCM WAV file; its sizes are written in the header when it closes. Throws FlowError when
// the file cannot be made.
class WAVFileOutput : public AudioOutput {
 public:
  WAVFileOutput(const std::filesystem::path& file, std::uint32_t sampleRate, int channels);
  ~WAVFileOutput() override;
  void play(std::span<const float> samples) override;
  double delayMs() const override { return 0; }

 private:
  void writeHeader();

  std::ofstream out_;
  const std::uint32_t sampleRate_;
  const int channels_;
  std::uint32_t dataBytes_ = 0;
};

}  // namespace kelvaron::client
