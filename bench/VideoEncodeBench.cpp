// libx265 through libavcodec on a desktop-like changing picture (a window sliding over a
// gradient, lines of text in it): how long a frame takes from capture time to encoded packet,
// and how many frames per second the encoder sustains when fed as fast as it takes them.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "host/video/LibavHEVCEncoder.hpp"
#include "kit/media/CaptureClock.hpp"
#include "tests/support/DesktopPicture.hpp"

namespace kelvaron::host {
namespace {

void encodeChangingDesktop(benchmark::State& state) {
  const int width = int(state.range(0));
  const int height = int(state.range(1));
  std::vector<PixelBufferRef> pictures;
  for (int shift = 0; shift < 64; shift += 4) {
    pictures.push_back(test::desktopPicture(width, height, shift));
  }
  std::mutex lock;
  std::condition_variable done;
  std::vector<double> latencies;
  LibavHEVCEncoder encoder(LibavBackend::libx265(), CodecProfile::hevcMain, 16000000,
                           [&](EncoderOutput output) {
                             if (auto* f = std::get_if<encoderOutput::frame>(&output)) {
                               std::lock_guard guard(lock);
                               latencies.push_back(f->latencyMs);
                             }
                             done.notify_all();
                           });
  std::size_t next = 0;
  for (auto _ : state) {
    const std::size_t before = [&] {
      std::lock_guard guard(lock);
      return latencies.size();
    }();
    encoder.encode({pictures[next++ % pictures.size()], 0, {0, 0, 1, 1}, monotonicRawNs()}, false,
                   false);
    std::unique_lock guard(lock);
    done.wait(guard, [&] { return latencies.size() > before; });
  }
  encoder.stop();
  std::sort(latencies.begin(), latencies.end());
  auto percentile = [&](double p) {
    return latencies[std::size_t(p * double(latencies.size() - 1))];
  };
  state.counters["p50_ms"] = percentile(0.50);
  state.counters["p95_ms"] = percentile(0.95);
  state.counters["fps"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(encodeChangingDesktop)
    ->Args({1280, 720})
    ->Args({1920, 1080})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(5.0);

}  // namespace
}  // namespace kelvaron::host
