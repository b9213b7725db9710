#include "host/audio/PulseAudioCapture.hpp"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdint>
#include <fstream>
#include <mutex>
#include <optional>

#include "client/AudioDecoder.hpp"
#include "host/audio/AACELDEncoder.hpp"
#include "host/audio/AudioPipeline.hpp"
#include "tests/support/AudioSignals.hpp"
#include "tests/support/PulseAudioServer.hpp"

namespace kelvaron::host {
namespace {

using test::eventually;
using test::PulseAudioServer;

constexpr double kToneAmplitude = 0.5;
constexpr double kToneDBFS = -6.02;
constexpr const char* kPrivateSink = "tovu_host_audio";

std::uint64_t nowMicros() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return std::uint64_t(now.tv_sec) * 1'000'000u + std::uint64_t(now.tv_nsec) / 1000u;
}

PulseAudioCaptureOptions optionsFor(const PulseAudioServer& server) {
  return {server.address(), server.directory() / "state" / "audio-routing.json"};
}

// A capture, and what it delivered from its drain thread.
struct Recording {
  explicit Recording(const PulseAudioServer& server) : capture(optionsFor(server)) {}

  AudioFormat start(bool mute) {
    format = capture.start(
        mute,
        [this](std::span<const float> batch, std::uint64_t ptsMicros) {
          std::lock_guard guard(lock);
          samples.insert(samples.end(), batch.begin(), batch.end());
          pts.push_back(ptsMicros);
        },
        [this](const std::string& text) {
          std::lock_guard guard(lock);
          failure = text;
        });
    return format;
  }
  auto locked(const auto& read) {
    std::lock_guard guard(lock);
    return read();
  }
  // Whether `seconds` more sound arrives.
  bool hearsMore(double seconds) {
    const auto count = [&] { return locked([&] { return samples.size(); }); };
    const auto wanted = count() + std::size_t(format.sampleRate * seconds) * format.channels;
    return eventually([&] { return count() > wanted; });
  }

  PulseAudioCapture capture;
  AudioFormat format;
  std::mutex lock;
  std::vector<float> samples;
  std::vector<std::uint64_t> pts;
  std::string failure;
};

// Half a second from the middle of a one-second tone in the left channel of 48 kHz stereo.
std::span<const float> steadyPart(const std::vector<float>& left) {
  const auto onset = std::ranges::find_if(left, [](float s) { return std::abs(s) > 0.1f; });
  const auto from = std::min(left.end() - onset, std::ptrdiff_t(test::kStreamRate / 4));
  const auto length = std::min(left.end() - onset - from, std::ptrdiff_t(test::kStreamRate / 2));
  return {onset + from, std::size_t(length)};
}

// The whole chain in one process: capture, the pipeline with our encoder, and the client's
// decoder. A wrong rate moves the tone off its frequency; a wrong channel count changes its level.
TEST(PulseAudioCapture, WhatTheDefaultOutputPlaysComesBackFromTheDecodedPackets) {
  const std::pair<int, int> outputs[] = {{48000, 2}, {22050, 6}};
  for (const auto& [rate, channels] : outputs) {
    SCOPED_TRACE(std::to_string(channels) + " channels at " + std::to_string(rate) + " Hz");
    PulseAudioServer server(rate, channels);
    SKIP_WITHOUT_PULSEAUDIO(server);
    const auto tone = test::writeToneWAV(server.directory(), 1.0, 1000, kToneAmplitude);
    std::mutex lock;
    std::optional<client::AudioDecoder> decoder;
    std::vector<float> left;
    std::vector<std::uint64_t> pts;
    std::string failure;
    const AudioSink sink{
        [&](const AudioStreamConfig& config) {
          std::lock_guard guard(lock);
          decoder.emplace(int(config.sampleRate), config.channels, config.magicCookie);
        },
        [&](const AudioPacket& packet) {
          std::lock_guard guard(lock);
          const auto decoded = decoder->decode(packet.data);
          EXPECT_TRUE(decoded) << "packet " << pts.size();
          if (decoded) std::ranges::copy(test::channelOf(*decoded, 2, 0), back_inserter(left));
          pts.push_back(packet.ptsMicros);
          return true;
        }};
    const auto pipeline = std::make_shared<AudioPipeline>(
        AudioMode::both, std::make_shared<PulseAudioCapture>(optionsFor(server)),
        std::make_shared<AACELDEncoderFactory>(), sink, [&](const std::string& text) {
          std::lock_guard guard(lock);
          failure = text;
        });
    const auto heard = [&] {
      std::lock_guard guard(lock);
      return left.size();
    };

    const std::uint64_t before = nowMicros();
    pipeline->start();
    const auto player = server.play(tone);
    ASSERT_TRUE(eventually([&] { return !player->running(); }, 10)) << "paplay did not finish";
    const auto wanted = heard() + test::kStreamRate / 10;
    ASSERT_TRUE(eventually([&] { return heard() > wanted; })) << "the end of the tone drained";
    pipeline->stop();
    const std::uint64_t after = nowMicros();

    const auto steady = steadyPart(left);
    EXPECT_NEAR(test::toneFrequency(steady), 1000, 0.5);
    EXPECT_NEAR(test::toneLevel(steady), kToneDBFS, 1);
    ASSERT_FALSE(pts.empty());
    EXPECT_TRUE(std::ranges::is_sorted(pts));
    EXPECT_GE(pts.front(), before) << "stamped on the video's clock, in microseconds";
    EXPECT_LE(pts.back(), after);
    EXPECT_TRUE(failure.empty()) << failure;
  }
}

// Then: a server that goes away while the phone-only mode runs ends the capture, and when it
// comes back the next start puts the routing right.
TEST(PulseAudioCapture, PhoneOnlyModeSendsEverySoundToThePhoneAndPutsTheRoutingBack) {
  PulseAudioServer server;
  SKIP_WITHOUT_PULSEAUDIO(server);
  // Each sound a tone of its own, so that the phone is heard to get each of them.
  const auto tone = [&](double hz) {
    return test::writeToneWAV(server.directory(), 10.0, hz, kToneAmplitude);
  };
  const auto followsDefault = server.play(tone(1000));
  const auto onOther = server.play(tone(1500), "test_other");
  ASSERT_TRUE(eventually(
      [&] { return server.sinkOf(followsDefault->pid()) && server.sinkOf(onOther->pid()); }));
  Recording recording(server);

  EXPECT_EQ(recording.start(true), (AudioFormat{48000, 2})) << "made like the speakers";
  // A sound that a program pins to the speakers after the start is moved too.
  const auto pinned = server.play(tone(2000), "test_out");
  ASSERT_TRUE(eventually([&] { return server.sinkOf(pinned->pid()) == kPrivateSink; }));
  ASSERT_TRUE(recording.hearsMore(0.5));
  EXPECT_EQ(server.defaultSink(), kPrivateSink);
  EXPECT_EQ(server.sinkOf(followsDefault->pid()), kPrivateSink);
  EXPECT_EQ(server.sinkOf(onOther->pid()), kPrivateSink);
  const auto routingFile = optionsFor(server).routingFile;
  EXPECT_TRUE(std::filesystem::exists(routingFile));

  recording.capture.stop();
  EXPECT_EQ(server.defaultSink(), "test_out");
  EXPECT_EQ(server.sinkOf(followsDefault->pid()), "test_out");
  EXPECT_EQ(server.sinkOf(onOther->pid()), "test_other");
  EXPECT_EQ(server.sinkOf(pinned->pid()), "test_out");
  EXPECT_EQ(server.sinks().size(), 2u) << "the private output is gone";
  EXPECT_FALSE(std::filesystem::exists(routingFile));
  // The last fifth of a second, when all three play.
  const auto left = test::channelOf(recording.samples, 2, 0);
  const auto last = std::span(left).last(48000 / 5);
  for (const double hz : {1000, 1500, 2000})
    EXPECT_NEAR(test::levelAt(last, hz), kToneDBFS, 1) << "the phone hears the tone of " << hz;

  recording.start(true);
  server.killServer();
  const auto failed = [&] { return recording.locked([&] { return recording.failure; }); };
  ASSERT_TRUE(eventually([&] { return !failed().empty(); }));
  EXPECT_TRUE(failed().starts_with("Audio capture: the sound server went away")) << failed();
  recording.capture.stop();
  EXPECT_TRUE(std::filesystem::exists(routingFile)) << "what could not be put back stays noted";
  try {
    recording.capture.start(false, {}, {});
    ADD_FAILURE() << "started without a server";
  } catch (const AudioCaptureError& failure) {
    EXPECT_EQ(failure.kind(), AudioCaptureError::Kind::failed);
    EXPECT_STREQ(failure.what(), "Audio capture is not available");
  }
  server.startServer();
  SKIP_WITHOUT_PULSEAUDIO(server);
  EXPECT_EQ(recording.start(false), (AudioFormat{48000, 2}));
  EXPECT_EQ(server.defaultSink(), "test_out");
  EXPECT_FALSE(std::filesystem::exists(routingFile));
}

// Starts a muted capture in another process and kills it there, as a crash would.
void killedInPhoneOnlyMode(const PulseAudioCaptureOptions& options) {
  const auto log = options.routingFile.parent_path().parent_path() / "child.log";
  test::ChildProcess child({TOVU_MUTED_CHILD, options.server, options.routingFile}, log);
  const auto said = [&] {
    std::ifstream in(log);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  ASSERT_TRUE(eventually(
      [&] { return !child.running() || said().find("ready\n") != std::string::npos; }, 10));
  ASSERT_TRUE(child.running()) << "the muted capture did not start: " << said();
  ::kill(child.pid(), SIGKILL);
}

TEST(PulseAudioCapture, RoutingLeftByAKilledRunIsPutBackByTheNextRun) {
  PulseAudioServer server;
  SKIP_WITHOUT_PULSEAUDIO(server);
  const auto tone = test::writeToneWAV(server.directory(), 10.0, 1000, kToneAmplitude);
  const auto followsDefault = server.play(tone);
  const auto onOther = server.play(tone, "test_other");
  ASSERT_TRUE(eventually([&] { return server.sinkOf(onOther->pid()) == "test_other"; }));
  const auto options = optionsFor(server);
  // A note that does not parse is kept aside, not overwritten, and the sounds go to the first
  // other output.
  for (const bool noteParses : {true, false}) {
    SCOPED_TRACE(noteParses ? "noted" : "note unreadable");
    ASSERT_NO_FATAL_FAILURE(killedInPhoneOnlyMode(options));
    ASSERT_EQ(server.defaultSink(), kPrivateSink);
    ASSERT_EQ(server.sinkOf(onOther->pid()), kPrivateSink);
    if (!noteParses) std::ofstream(options.routingFile) << "{\"previousDefault";

    PulseAudioCapture(options).restoreLeftovers();
    EXPECT_EQ(server.defaultSink(), "test_out");
    EXPECT_EQ(server.sinkOf(followsDefault->pid()), "test_out");
    EXPECT_EQ(server.sinkOf(onOther->pid()), noteParses ? "test_other" : "test_out");
    EXPECT_EQ(server.sinks().size(), 2u) << "the private output is gone";
    EXPECT_FALSE(std::filesystem::exists(options.routingFile));
    EXPECT_EQ(std::filesystem::exists(options.routingFile.string() + ".bad"), !noteParses);
  }
}

}  // namespace
}  // namespace kelvaron::host
