#pragma once

// Sound for tests and benchmarks of the audio path, and how faithfully it comes back: signals
// shaped like what a desktop plays (speech, music, tones in noise) as interleaved float, and
// measures of a decoded signal against the one fed in.

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <numbers>
#include <random>
#include <span>
#include <vector>

namespace kelvaron::test {

inline constexpr int kStreamRate = 48000;

inline double amplitudeOf(double dBFS) { return std::pow(10.0, dBFS / 20); }

// `seconds` of `channels` interleaved channels, each sample made by `sampleAt(time, channel)`.
template <typename SampleAt>
std::vector<float> synthesize(double seconds, int rate, int channels, SampleAt sampleAt) {
  const auto frames = std::size_t(seconds * rate);
  std::vector<float> samples(frames * std::size_t(channels));
  for (std::size_t frame = 0; frame < frames; ++frame)
    for (int channel = 0; channel < channels; ++channel)
      samples[frame * std::size_t(channels) + std::size_t(channel)] =
          float(sampleAt(double(frame) / rate, channel));
  return samples;
}

inline std::vector<float> tone(double frequency, double dBFS, double seconds,
                               int rate = kStreamRate, int channels = 2) {
  const double amplitude = amplitudeOf(dBFS);
  return synthesize(seconds, rate, channels, [&](double t, int) {
    return amplitude * std::sin(2 * std::numbers::pi * frequency * t);
  });
}

// A voice: a gliding fundamental with falling harmonics, in syllables four times a second, and a
// pause of 300 ms in every second.
inline std::vector<float> speechLike(double seconds) {
  return synthesize(seconds, kStreamRate, 2, [](double t, int channel) {
    const double inSecond = t - std::floor(t);
    if (inSecond > 0.7) return 0.0;
    const double syllable = std::pow(std::sin(std::numbers::pi * 4 * inSecond), 2);
    // The phase of a pitch of 140 Hz swinging by 40 Hz 0.7 times a second.
    const double phase =
        2 * std::numbers::pi * 140 * t - 40 / 0.7 * std::cos(2 * std::numbers::pi * 0.7 * t);
    double voice = 0;
    for (int harmonic = 1; harmonic <= 30; ++harmonic)
      voice += std::sin(harmonic * phase) / harmonic;
    return (channel == 0 ? 0.3 : 0.25) * syllable * voice;
  });
}

// Chords of four notes with their overtones, struck twice a second and decaying, the notes
// spread between the two sides.
inline std::vector<float> musicLike(double seconds) {
  constexpr double kChords[4][4] = {{261.6, 329.6, 392.0, 523.3},
                                    {220.0, 261.6, 329.6, 440.0},
                                    {174.6, 220.0, 261.6, 349.2},
                                    {196.0, 246.9, 293.7, 392.0}};
  return synthesize(seconds, kStreamRate, 2, [&](double t, int channel) {
    const int strike = int(t * 2);
    const double sinceStrike = t - strike / 2.0;
    const double envelope = std::exp(-5 * sinceStrike);
    double sum = 0;
    for (int note = 0; note < 4; ++note) {
      const double pan = (note % 2 == channel) ? 1.0 : 0.4;
      for (int overtone = 1; overtone <= 6; ++overtone)
        sum += pan * std::sin(2 * std::numbers::pi * kChords[strike % 4][note] * overtone * t) /
               (overtone * overtone);
    }
    return 0.2 * envelope * sum;
  });
}

// Three steady tones at -12, -18 and -24 dBFS over white noise at -40 dBFS, the tones
// different on each side.
inline std::vector<float> tonesInNoise(double seconds) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> noise(-1, 1);
  const double noiseAmplitude = amplitudeOf(-40) * std::sqrt(3.0);  // so that its RMS is -40 dBFS
  return synthesize(seconds, kStreamRate, 2, [&](double t, int channel) {
    const double shift = channel == 0 ? 1.0 : 1.25;
    double sum = noiseAmplitude * noise(random);
    for (const auto& [hz, dBFS] : {std::pair{440.0, -12.0}, {1250.0, -18.0}, {5200.0, -24.0}})
      sum += amplitudeOf(dBFS) * std::sin(2 * std::numbers::pi * hz * shift * t);
    return sum;
  });
}

// One channel of interleaved samples.
inline std::vector<float> channelOf(std::span<const float> interleaved, int channels, int channel) {
  std::vector<float> samples;
  for (std::size_t i = std::size_t(channel); i < interleaved.size(); i += std::size_t(channels))
    samples.push_back(interleaved[i]);
  return samples;
}

// The mean over 20 ms segments of each segment's SNR in dB, `decoded` read `delay` samples later
// than `reference`. Segments quieter than -60 dBFS are left out; each counts between -10 and
// 60 dB, so that one perfect or one lost segment does not decide the mean.
inline double segmentalSNR(std::span<const float> reference, std::span<const float> decoded,
                           std::size_t delay) {
  constexpr std::size_t kSegment = kStreamRate / 50;
  const double quiet = kSegment * std::pow(amplitudeOf(-60), 2);
  double sum = 0;
  int counted = 0;
  for (std::size_t start = 0;
       start + kSegment + delay <= decoded.size() && start + kSegment <= reference.size();
       start += kSegment) {
    double signal = 0, noise = 0;
    for (std::size_t i = start; i < start + kSegment; ++i) {
      signal += double(reference[i]) * reference[i];
      noise += std::pow(double(decoded[i + delay]) - reference[i], 2);
    }
    if (signal < quiet) continue;
    sum += std::clamp(10 * std::log10(signal / std::max(noise, 1e-20)), -10.0, 60.0);
    ++counted;
  }
  return counted ? sum / counted : 0;
}

// The level in dBFS of a steady tone: its RMS raised by 3 dB.
inline double toneLevel(std::span<const float> samples) {
  double sum = 0;
  for (const float sample : samples) sum += double(sample) * sample;
  return 20 * std::log10(std::sqrt(2 * sum / double(samples.size())));
}

// The level in dBFS of the part of `samples` at `frequency`, as `toneLevel` gives a lone tone's.
inline double levelAt(std::span<const float> samples, double frequency, int rate = kStreamRate) {
  std::complex<double> sum;
  for (std::size_t i = 0; i < samples.size(); ++i)
    sum += double(samples[i]) * std::polar(1.0, -2 * std::numbers::pi * frequency * double(i) / rate);
  return 20 * std::log10(2 * std::abs(sum) / double(samples.size()));
}

// The frequency of a steady tone from its rising zero crossings, placed between samples.
inline double toneFrequency(std::span<const float> samples, int rate = kStreamRate) {
  double first = -1, last = -1;
  int crossings = 0;
  for (std::size_t i = 1; i < samples.size(); ++i) {
    if (samples[i - 1] >= 0 || samples[i] < 0) continue;
    const double at = double(i - 1) + samples[i - 1] / (samples[i - 1] - samples[i]);
    if (first < 0) first = at;
    last = at;
    ++crossings;
  }
  return crossings > 1 ? (crossings - 1) * rate / (last - first) : 0;
}

}  // namespace kelvaron::test
