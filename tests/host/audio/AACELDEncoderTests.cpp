// The AAC-ELD encoder, judged by what libavcodec's AAC decoder (through the client's
// AudioDecoder) makes of its packets.

#include "host/audio/AACELDEncoder.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <functional>
#include <limits>
#include <string>

#include "client/AudioDecoder.hpp"
#include "tests/support/AudioSignals.hpp"

extern "C" {
#include <libavutil/log.h>
}

namespace kelvaron::host {
namespace {

// Everything libavcodec reports as an error while decoding, counted.
int decoderErrors = 0;

void countErrors(void*, int level, const char*, va_list) {
  if (level <= AV_LOG_ERROR) ++decoderErrors;
}

struct RoundTrip {
  std::vector<Data> packets;
  std::vector<float> decoded;  // 48 kHz stereo
  int undecodable = 0;
};

// `input` fed in pieces of 10 ms as a sound server delivers them, every packet decoded.
RoundTrip roundTrip(std::span<const float> input, double rate = test::kStreamRate,
                    int channels = 2) {
  const auto encoder = AACELDEncoderFactory().makeEncoder(rate, channels);
  const AudioStreamConfig config = encoder->config();
  const Data kELDStereo512{0xF8, 0xE6, 0x40, 0x00};
  EXPECT_EQ(config, (AudioStreamConfig{48000, 2, AudioCodec::aacELD, kELDStereo512}))
      << "one 48 kHz stereo stream whatever it is fed";
  client::AudioDecoder decoder(int(config.sampleRate), config.channels, config.magicCookie);
  av_log_set_callback(countErrors);
  decoderErrors = 0;
  RoundTrip result;
  const auto piece = std::size_t(rate / 100) * std::size_t(channels);
  for (std::size_t at = 0; at < input.size(); at += piece) {
    for (Data& packet : encoder->encode(input.subspan(at, std::min(piece, input.size() - at)))) {
      const auto samples = decoder.decode(packet);
      if (samples) result.decoded.insert(result.decoded.end(), samples->begin(), samples->end());
      result.undecodable += samples ? 0 : 1;
      result.packets.push_back(std::move(packet));
    }
  }
  av_log_set_callback(av_log_default_callback);
  result.undecodable += decoderErrors;
  return result;
}

// A tone with what sound can hold that is not sound in every third sample: NaN, infinities,
// huge and tiny values.
std::vector<float> hostile(double seconds) {
  using Limits = std::numeric_limits<float>;
  constexpr float kValues[] = {Limits::quiet_NaN(), Limits::infinity(), -Limits::infinity(), 1e30f,
                               -3e38f,              Limits::denorm_min(), 0.5f};
  auto samples = test::tone(3000, -6, seconds);
  for (std::size_t i = 0; i < samples.size(); i += 3) samples[i] = kValues[i / 3 % 7];
  return samples;
}

std::vector<float> fullScaleNoise(double seconds) {
  std::mt19937 random(3);
  std::uniform_real_distribution<float> noise(-1, 1);
  return test::synthesize(seconds, test::kStreamRate, 2, [&](double, int) { return noise(random); });
}

TEST(AACELDEncoder, AnySoundBecomesDecodableAccessUnitsWithinTheBudget) {
  constexpr double kSeconds = 3;
  // With the least a signal with this much in it should get of the 128 kbit/s.
  const std::tuple<const char*, std::function<std::vector<float>(double)>, double> cases[] = {
      {"speech", test::speechLike, 20},
      {"music", test::musicLike, 40},
      {"silence", [](double s) { return std::vector<float>(std::size_t(s * 96000)); }, 0},
      {"full-scale noise", fullScaleNoise, 120},
      {"NaN, infinities and huge values", hostile, 40},
  };
  for (const auto& [name, signal, leastKbps] : cases) {
    SCOPED_TRACE(name);
    const auto input = signal(kSeconds);
    const RoundTrip trip = roundTrip(input);
    EXPECT_EQ(trip.undecodable, 0);
    ASSERT_EQ(trip.packets.size(), input.size() / ELDFrameEncoder::kSamplesPerAccessUnit);
    EXPECT_EQ(trip.decoded.size(), trip.packets.size() * ELDFrameEncoder::kSamplesPerAccessUnit);

    std::size_t bytes = 0;
    for (const Data& packet : trip.packets) {
      EXPECT_LE(packet.size(), ELDFrameEncoder::kMaxAccessUnitBytes);
      bytes += packet.size();
    }
    const double seconds = double(trip.packets.size()) * eld::kFrameLength / eld::kSampleRate;
    const double kbps = double(bytes) * 8 / seconds / 1000;
    EXPECT_LE(double(bytes) * 8, eld::kBitsPerSecond * seconds + eld::kReservoirBits) << kbps;
    EXPECT_GE(kbps, leastKbps);
    // Coarse steps may overshoot full scale, but nothing can make the sound run away.
    EXPECT_TRUE(std::ranges::all_of(trip.decoded, [](float s) { return std::abs(s) <= 4; }));
    EXPECT_EQ(roundTrip(input).packets, trip.packets) << "the same sound gives the same bytes";
  }
}

TEST(AACELDEncoder, TonesInNoiseComeBackAbove20dBSegmentalSNR) {
  const auto input = test::tonesInNoise(3);
  const RoundTrip trip = roundTrip(input);
  ASSERT_EQ(trip.undecodable, 0);
  // Aligned by the filterbank's delay, which is known exactly.
  const auto delay = std::size_t(ELDFrameEncoder::kDecoderDelayFrames);
  for (int channel = 0; channel < 2; ++channel) {
    const double snr = test::segmentalSNR(test::channelOf(input, 2, channel),
                                          test::channelOf(trip.decoded, 2, channel), delay);
    EXPECT_GE(snr, 20) << "channel " << channel;
    RecordProperty("segmental_snr_db_" + std::to_string(channel), std::to_string(snr));
  }
}

TEST(AACELDEncoder, AToneComesBackAtItsFrequencyAndLevel) {
  struct {
    double rate;
    int channels;
    double frequency;
    double dBFS;
  } const cases[] = {
      {48000, 2, 1000, -12},  {48000, 2, 1000, -40},
      {48000, 2, 1000, -0.5},  // lines in the thousands: long escape sequences
      {48000, 2, 18000, -50},  // above 31 empty bands, which take two length fields
      {44100, 1, 1000, -12},   // through the resampler
      {22050, 2, 1000, -6},    {8000, 2, 1000, -6},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.frequency << " Hz at " << c.dBFS << " dBFS, "
                                    << c.channels << " channels at " << c.rate << " Hz");
    const RoundTrip trip =
        roundTrip(test::tone(c.frequency, c.dBFS, 2, int(c.rate), c.channels), c.rate, c.channels);
    ASSERT_EQ(trip.undecodable, 0);
    for (int channel = 0; channel < 2; ++channel) {
      const auto decoded = test::channelOf(trip.decoded, 2, channel);
      // Past the start, where the filters fill.
      const std::span steady = std::span(decoded).subspan(4800);
      EXPECT_NEAR(test::toneFrequency(steady), c.frequency, 0.5);
      EXPECT_NEAR(test::toneLevel(steady), c.dBFS, 1);
    }
  }
}

TEST(AACELDEncoder, OneAccessUnitPer512FramesTheRestWaitsAndAPartFrameIsDropped) {
  // Floats fed, packets expected. Without the dropped part frame (3 = one frame and a half),
  // 3 + 1021 would make a whole access unit.
  const std::pair<std::size_t, std::size_t> steps[] = {{1000, 0}, {1048, 2}, {1022, 0}, {2, 1},
                                                       {3, 0},    {1021, 0}, {2, 1},    {0, 0}};
  AACELDEncoder encoder(48000, 2);
  const auto sound = test::tone(440, -6, 1);
  std::size_t at = 0;
  for (const auto& [floats, packets] : steps) {
    SCOPED_TRACE(std::to_string(floats) + " floats after " + std::to_string(at));
    EXPECT_EQ(encoder.encode(std::span(sound).subspan(at, floats)).size(), packets);
    at += floats;
  }
}

TEST(AACELDEncoderFactory, RefusesWhatItCannotEncodeInWords) {
  const std::tuple<double, int, std::string> cases[] = {
      {7999, 2, "2 channels at 7999 Hz"},   {48000, 3, "3 channels at 48000 Hz"},
      {48000, 0, "0 channels at 48000 Hz"}, {std::nan(""), 1, "1 channels at nan Hz"},
      {1e9, 2, "2 channels at 1e+09 Hz"},
  };
  for (const auto& [rate, channels, text] : cases) {
    try {
      AACELDEncoderFactory().makeEncoder(rate, channels);
      ADD_FAILURE() << text << " was accepted";
    } catch (const AACELDError& error) {
      EXPECT_EQ(error.kind(), AACELDError::Kind::unsupportedInput);
      EXPECT_EQ(error.what(), text);
    }
  }
}

}  // namespace
}  // namespace kelvaron::host
