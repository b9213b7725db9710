// How soon the computer's sound is a packet ready to send: a private PulseAudio server plays a
// tone into its default output, and the host's capture and pipeline with our AAC-ELD encoder run
// on it for the whole of it. A packet's delay is the moment the sink gets it minus the capture
// time of its first sample (its pts, on the clock of the sound server's recording). One packet's
// length, 10.7 ms, is the codec's frame; the rest is the server's fragment, the drain period and
// the encoding. Prints p50, p95 and the largest delay.
//
//   audio_latency_bench [SECONDS]

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <mutex>

#include "host/audio/AACELDEncoder.hpp"
#include "host/audio/AudioPipeline.hpp"
#include "host/audio/PulseAudioCapture.hpp"
#include "tests/support/PulseAudioServer.hpp"

namespace kelvaron::host {
namespace {

std::uint64_t nowMicros() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return std::uint64_t(now.tv_sec) * 1'000'000u + std::uint64_t(now.tv_nsec) / 1000u;
}

double percentile(std::vector<double> values, double p) {
  std::ranges::sort(values);
  return values[std::min(values.size() - 1, std::size_t(p * double(values.size())))];
}

int measure(double seconds) {
  test::PulseAudioServer server;
  if (!server.available()) {
    std::cerr << "audio_latency_bench: " << server.skipReason() << "\n";
    return 1;
  }
  const auto player = server.play(test::writeToneWAV(server.directory(), seconds + 2, 1000, 0.25));
  std::mutex lock;
  std::vector<double> delays;
  const AudioSink sink{[](const AudioStreamConfig&) {},
                       [&](const AudioPacket& packet) {
                         const double delay =
                             double(std::int64_t(nowMicros() - packet.ptsMicros)) / 1000;
                         std::lock_guard guard(lock);
                         delays.push_back(delay);
                         return true;
                       }};
  const auto pipeline = std::make_shared<AudioPipeline>(
      AudioMode::both,
      std::make_shared<PulseAudioCapture>(PulseAudioCaptureOptions{
          server.address(), server.directory() / "state" / "audio-routing.json"}),
      std::make_shared<AACELDEncoderFactory>(), sink,
      [](const std::string& text) { std::cerr << "audio_latency_bench: " << text << "\n"; });
  test::eventually([&] { return server.sinkOf(player->pid()).has_value(); });
  pipeline->start();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  pipeline->stop();
  std::lock_guard guard(lock);
  if (delays.empty()) {
    std::cerr << "audio_latency_bench: no packet\n";
    return 1;
  }
  std::printf("%zu packets: capture to packet p50 %.1f ms, p95 %.1f ms, min %.1f ms, max %.1f ms\n",
              delays.size(), percentile(delays, 0.5), percentile(delays, 0.95),
              *std::ranges::min_element(delays), *std::ranges::max_element(delays));
  return 0;
}

}  // namespace
}  // namespace kelvaron::host

int main(int argc, char** argv) {
  return kelvaron::host::measure(argc > 1 ? std::stod(argv[1]) : 20);
}
