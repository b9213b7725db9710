#include "host/audio/PulseAudioCapture.hpp"

#include <gtest/gtest.h>
#include <time.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <numbers>

#include "tests/support/PulseAudioServer.hpp"

namespace kelvaron::host {
namespace {

using test::eventually;
using test::PulseAudioServer;

constexpr double kToneHz = 1000;
constexpr double kToneAmplitude = 0.5;
constexpr const char* kPrivateSink = "tovu_host_audio";

std::uint64_t nowMicros() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return std::uint64_t(now.tv_sec) * 1'000'000u + std::uint64_t(now.tv_nsec) / 1000u;
}

std::filesystem::path writeTone(const std::filesystem::path& folder, double seconds,
                                double hz = kToneHz) {
  return test::writeToneWAV(folder, seconds, hz, kToneAmplitude);
}

// What a capture delivered, from its drain thread.
struct Recorder {
  std::mutex lock;
  std::vector<float> samples;
  std::vector<std::uint64_t> pts;
  std::string failure;

  AudioCapturing::SamplesCallback onSamples() {
    return [this](std::span<const float> batch, std::uint64_t ptsMicros) {
      std::lock_guard guard(lock);
      samples.insert(samples.end(), batch.begin(), batch.end());
      pts.push_back(ptsMicros);
    };
  }
  AudioCapturing::FailureCallback onFailure() {
    return [this](const std::string& text) {
      std::lock_guard guard(lock);
      failure = text;
    };
  }
  std::size_t count() {
    std::lock_guard guard(lock);
    return samples.size();
  }
  std::string failed() {
    std::lock_guard guard(lock);
    return failure;
  }
};

struct Tone {
  double levelDb = -200;  // of the part at the tone's frequency, against the tone played
  double share = 0;       // of the energy that is that part
};

// The loudest 100 ms of one channel, read at `rate`: a wrong rate moves the tone off its
// frequency. Tones at multiples of 10 Hz are told apart exactly.
Tone measureTone(const std::vector<float>& samples, int channels, int channel, double rate,
                 double hz = kToneHz) {
  const auto window = static_cast<std::size_t>(rate / 10);
  const std::size_t frames = samples.size() / static_cast<std::size_t>(channels);
  double loudest = 0;
  Tone tone;
  for (std::size_t start = 0; start + window <= frames; start += window) {
    double energy = 0;
    std::complex<double> component;
    for (std::size_t n = 0; n < window; ++n) {
      const double x = samples[(start + n) * channels + channel];
      energy += x * x;
      component += x * std::polar(1.0, -2 * std::numbers::pi * hz * double(n) / rate);
    }
    if (energy <= loudest) continue;
    loudest = energy;
    const double amplitude = 2 * std::abs(component) / double(window);
    tone = {20 * std::log10(amplitude / kToneAmplitude),
            amplitude * amplitude / 2 / (energy / double(window))};
  }
  return tone;
}

class PulseAudioCaptureTest : public ::testing::Test {
 protected:
  PulseAudioCaptureOptions options(const PulseAudioServer& server) const {
    return {server.address(), server.directory() / "state" / "audio-routing.json"};
  }
};

struct OutputCase {
  int rate;
  int channels;
  AudioFormat delivered;
};

class CaptureOfTheDefaultOutput : public PulseAudioCaptureTest,
                                  public ::testing::WithParamInterface<OutputCase> {};

TEST_P(CaptureOfTheDefaultOutput, DeliversWhatPlaysAtItsRateWithAtMostTwoChannels) {
  const OutputCase& output = GetParam();
  PulseAudioServer server(output.rate, output.channels);
  SKIP_WITHOUT_PULSEAUDIO(server);
  const auto tone = writeTone(server.directory(), 1.0);
  PulseAudioCapture capture(options(server));
  Recorder recorder;

  const std::uint64_t before = nowMicros();
  const AudioFormat format = capture.start(false, recorder.onSamples(), recorder.onFailure());
  EXPECT_EQ(format, output.delivered);
  const auto player = server.play(tone);
  ASSERT_TRUE(eventually([&] { return !player->running(); }, 10)) << "paplay did not finish";
  // A tenth of a second more, so that the end of the tone has been drained too.
  const auto tenth = static_cast<std::size_t>(format.sampleRate / 10 * format.channels);
  const std::size_t played = recorder.count();
  ASSERT_TRUE(eventually([&] { return recorder.count() > played + tenth; }));
  capture.stop();
  const std::uint64_t after = nowMicros();

  std::lock_guard guard(recorder.lock);
  for (int channel = 0; channel < format.channels; ++channel) {
    const Tone heard = measureTone(recorder.samples, format.channels, channel, format.sampleRate);
    EXPECT_NEAR(heard.levelDb, 0, 1) << "channel " << channel;
    EXPECT_GT(heard.share, 0.9) << "channel " << channel;
  }
  ASSERT_FALSE(recorder.pts.empty());
  EXPECT_TRUE(std::ranges::is_sorted(recorder.pts));
  EXPECT_GE(recorder.pts.front(), before) << "stamped on the video's clock, in microseconds";
  EXPECT_LE(recorder.pts.back(), after);
  EXPECT_TRUE(recorder.failure.empty()) << recorder.failure;
}

INSTANTIATE_TEST_SUITE_P(Outputs, CaptureOfTheDefaultOutput,
                         ::testing::Values(OutputCase{48000, 2, {48000, 2}},
                                           OutputCase{22050, 6, {22050, 2}}),
                         [](const auto& test) {
                           return std::to_string(test.param.rate) + "Hz" +
                                  std::to_string(test.param.channels) + "Channels";
                         });

TEST_F(PulseAudioCaptureTest, PhoneOnlyModeSendsEverySoundToThePhoneAndPutsTheRoutingBack) {
  PulseAudioServer server;
  SKIP_WITHOUT_PULSEAUDIO(server);
  // Each sound a tone of its own, so that the phone is heard to get each of them.
  const auto tone = [&](double hz) { return writeTone(server.directory(), 10.0, hz); };
  const auto followsDefault = server.play(tone(1000));
  const auto onOther = server.play(tone(1500), "test_other");
  ASSERT_TRUE(eventually(
      [&] { return server.sinkOf(followsDefault->pid()) && server.sinkOf(onOther->pid()); }));
  PulseAudioCapture capture(options(server));
  Recorder recorder;

  const AudioFormat format = capture.start(true, recorder.onSamples(), recorder.onFailure());
  EXPECT_EQ(format, (AudioFormat{48000, 2})) << "the private output is made like the speakers";
  // A sound that a program pins to the speakers after the start is moved too.
  const auto pinned = server.play(tone(2000), "test_out");
  ASSERT_TRUE(eventually([&] { return server.sinkOf(pinned->pid()) == kPrivateSink; }));
  const std::size_t moved = recorder.count();
  const auto fifth = static_cast<std::size_t>(format.sampleRate / 5 * format.channels);
  ASSERT_TRUE(eventually([&] { return recorder.count() > moved + fifth; }));
  EXPECT_EQ(server.defaultSink(), kPrivateSink);
  EXPECT_EQ(server.sinkOf(followsDefault->pid()), kPrivateSink);
  EXPECT_EQ(server.sinkOf(onOther->pid()), kPrivateSink);
  EXPECT_TRUE(std::filesystem::exists(options(server).routingFile));

  capture.stop();
  EXPECT_EQ(server.defaultSink(), "test_out");
  EXPECT_EQ(server.sinkOf(followsDefault->pid()), "test_out");
  EXPECT_EQ(server.sinkOf(onOther->pid()), "test_other");
  EXPECT_EQ(server.sinkOf(pinned->pid()), "test_out");
  EXPECT_EQ(server.sinks().size(), 2u) << "the private output is gone";
  EXPECT_FALSE(std::filesystem::exists(options(server).routingFile));
  std::lock_guard guard(recorder.lock);
  for (const double hz : {1000, 1500, 2000}) {
    EXPECT_NEAR(measureTone(recorder.samples, format.channels, 0, format.sampleRate, hz).levelDb, 0,
                1)
        << "the phone hears the tone of " << hz << " Hz";
  }
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

struct LeftoverCase {
  std::string name;
  bool noteParses;
  std::string otherSoundGoesTo;
};

class LeftoverRouting : public PulseAudioCaptureTest,
                        public ::testing::WithParamInterface<LeftoverCase> {};

TEST_P(LeftoverRouting, IsPutBackByTheNextRun) {
  PulseAudioServer server;
  SKIP_WITHOUT_PULSEAUDIO(server);
  const auto tone = writeTone(server.directory(), 10.0);
  const auto followsDefault = server.play(tone);
  const auto onOther = server.play(tone, "test_other");
  ASSERT_TRUE(eventually([&] { return server.sinkOf(onOther->pid()) == "test_other"; }));
  const auto options = this->options(server);

  ASSERT_NO_FATAL_FAILURE(killedInPhoneOnlyMode(options));
  ASSERT_EQ(server.defaultSink(), kPrivateSink);
  ASSERT_EQ(server.sinkOf(onOther->pid()), kPrivateSink);
  if (!GetParam().noteParses) std::ofstream(options.routingFile) << "{\"previousDefault";

  PulseAudioCapture(options).restoreLeftovers();
  EXPECT_EQ(server.defaultSink(), "test_out");
  EXPECT_EQ(server.sinkOf(followsDefault->pid()), "test_out");
  EXPECT_EQ(server.sinkOf(onOther->pid()), GetParam().otherSoundGoesTo);
  EXPECT_EQ(server.sinks().size(), 2u) << "the private output is gone";
  EXPECT_FALSE(std::filesystem::exists(options.routingFile));
  EXPECT_EQ(std::filesystem::exists(options.routingFile.string() + ".bad"), !GetParam().noteParses)
      << "a note that does not parse is kept aside, not overwritten";
}

INSTANTIATE_TEST_SUITE_P(Notes, LeftoverRouting,
                         ::testing::Values(LeftoverCase{"Noted", true, "test_other"},
                                           // Then the sounds go to the first other output.
                                           LeftoverCase{"NoteUnreadable", false, "test_out"}),
                         [](const auto& test) { return test.param.name; });

TEST_F(PulseAudioCaptureTest, WithoutASoundServerCaptureIsNotAvailable) {
  test::TempDirectory folder;
  PulseAudioCapture capture({"unix:" + (folder / "no-server").string(), folder / "routing.json"});
  try {
    capture.start(false, {}, {});
    FAIL() << "started without a server";
  } catch (const AudioCaptureError& failure) {
    EXPECT_EQ(failure.kind(), AudioCaptureError::Kind::failed);
    EXPECT_STREQ(failure.what(), "Audio capture is not available");
  }
}

TEST_F(PulseAudioCaptureTest, AServerThatGoesAwayEndsTheCaptureAndOneThatComesBackIsPutRight) {
  PulseAudioServer server;
  SKIP_WITHOUT_PULSEAUDIO(server);
  PulseAudioCapture capture(options(server));
  Recorder recorder;
  capture.start(true, recorder.onSamples(), recorder.onFailure());

  server.killServer();
  ASSERT_TRUE(eventually([&] { return !recorder.failed().empty(); }));
  EXPECT_TRUE(recorder.failed().starts_with("Audio capture: the sound server went away"))
      << recorder.failed();
  capture.stop();
  EXPECT_TRUE(std::filesystem::exists(options(server).routingFile))
      << "what could not be put back stays noted";

  server.startServer();
  SKIP_WITHOUT_PULSEAUDIO(server);
  const AudioFormat format = capture.start(false, recorder.onSamples(), recorder.onFailure());
  EXPECT_EQ(format, (AudioFormat{48000, 2}));
  EXPECT_EQ(server.defaultSink(), "test_out");
  EXPECT_FALSE(std::filesystem::exists(options(server).routingFile));
}

}  // namespace
}  // namespace kelvaron::host
