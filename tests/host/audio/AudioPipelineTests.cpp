#include "host/audio/AudioPipeline.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace kelvaron::host {
namespace {

// A capture whose samples the test hands in itself.
struct ScriptedCapture : AudioCapturing {
  AudioFormat format{48000, 2};
  bool muted = false;
  bool running = false;
  SamplesCallback samples;

  AudioFormat start(bool mute, SamplesCallback onSamples, FailureCallback) override {
    muted = mute;
    running = true;
    samples = std::move(onSamples);
    return format;
  }
  void stop() override { running = false; }
  void deliver(std::size_t floats, std::uint64_t ptsMicros) {
    const std::vector<float> sound(floats, 0.25f);
    samples(sound, ptsMicros);
  }
};

TEST(AudioPipeline, StampsPacketsOnAGridFromTheFirstSampleAndARefusalLeavesAGap) {
  const auto capture = std::make_shared<ScriptedCapture>();
  std::optional<AudioStreamConfig> config;
  std::vector<std::uint64_t> taken;
  int offered = 0;
  const AudioSink sink{[&](const AudioStreamConfig& c) { config = c; },
                       [&](const AudioPacket& packet) {
                         if (++offered == 2) return false;
                         taken.push_back(packet.ptsMicros);
                         return true;
                       }};
  const auto pipeline = std::make_shared<AudioPipeline>(
      AudioMode::phoneOnly, capture, std::make_shared<AACELDEncoderFactory>(), sink, nullptr);
  pipeline->start();
  EXPECT_TRUE(capture->muted);
  ASSERT_TRUE(config);
  EXPECT_EQ(config->sampleRate, 48000u);

  // 1000 floats are not a packet yet; 1048 more make two. The drain's own times after the first
  // do not move the grid.
  capture->deliver(1000, 5'000'000);
  EXPECT_EQ(offered, 0);
  capture->deliver(1048, 9'999'999);
  capture->deliver(2048, 1);
  EXPECT_EQ(taken, (std::vector<std::uint64_t>{5'000'000, 5'021'333, 5'032'000}));
  EXPECT_EQ(pipeline->counts().sent, 3u);
  EXPECT_EQ(pipeline->counts().dropped, 1u);

  pipeline->stop();
  EXPECT_FALSE(capture->running);
  capture->deliver(1024, 0);
  EXPECT_EQ(offered, 4) << "nothing is encoded after stop";
}

TEST(AudioPipeline, AFormatNoEncoderTakesStopsTheCaptureAndSaysSo) {
  const auto capture = std::make_shared<ScriptedCapture>();
  capture->format = {48000, 3};
  const auto pipeline = std::make_shared<AudioPipeline>(
      AudioMode::both, capture, std::make_shared<AACELDEncoderFactory>(), AudioSink{}, nullptr);
  try {
    pipeline->start();
    FAIL() << "started";
  } catch (const AudioCaptureError& error) {
    EXPECT_STREQ(error.what(), "Audio encoder: 3 channels at 48000 Hz");
  }
  EXPECT_FALSE(capture->muted);
  EXPECT_FALSE(capture->running);
}

}  // namespace
}  // namespace kelvaron::host
