// The host's video path on a real X server (Xvfb): a desktop that changes as a person's does (a
// terminal scrolling, a window being dragged across it, both 60 times a second), captured through
// MIT-SHM on DAMAGE and encoded by libx265; and the same path on a still screen, where it should
// cost next to nothing.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/use_future.hpp>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "host/video/LibavHEVCEncoder.hpp"
#include "host/video/RandrDisplayManager.hpp"
#include "host/video/VideoPipeline.hpp"
#include "host/video/X11CaptureSource.hpp"
#include "tests/support/DesktopPicture.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using Clock = std::chrono::steady_clock;

// Xvfb of the given size showing a desktop, an executor running on a thread of its own, and the
// main display's description.
class XDesktop {
 public:
  XDesktop(int width, int height) : x_(width, height), painter_(nullptr) {
    if (!x_.available()) return;
    thread_ = std::thread([this] { io_.run(); });
    painter_ = std::make_unique<test::ScreenPainter>(x_.name());
    painter_->show(*test::desktopPicture(width, height));
    RandrDisplayManager manager(io_.get_executor(), x_.name());
    main_ = asio::co_spawn(io_, manager.displays(), asio::use_future).get().front();
  }
  ~XDesktop() {
    work_.reset();
    if (thread_.joinable()) thread_.join();
  }

  bool available() const { return x_.available(); }
  const std::string& skipReason() const { return x_.skipReason(); }
  test::ScreenPainter& painter() { return *painter_; }

  // A capture of the whole main display at its own size, each frame handed to `onFrame`.
  std::shared_ptr<CaptureSource> capture(CaptureSource::FrameHandler onFrame) {
    auto source = X11CaptureSource::make(io_.get_executor(), x_.name());
    const Viewport whole{main_.id, {0, 0, 1, 1}, main_.pixelWidth, main_.pixelHeight};
    asio::co_spawn(io_, source->start(main_, whole, std::move(onFrame), nullptr), asio::use_future)
        .get();
    return source;
  }
  void stop(CaptureSource& source) { asio::co_spawn(io_, source.stop(), asio::use_future).get(); }
  Executor executor() { return io_.get_executor(); }

 private:
  test::VirtualDisplay x_;
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
  std::thread thread_;
  std::unique_ptr<test::ScreenPainter> painter_;
  DisplayInfo main_;
};

// One step of a busy desktop: the terminal scrolls by a line and prints a new one, and the window
// moves on by a few pixels, bouncing between the screen's edges.
void animate(test::ScreenPainter& painter, int width, int height, int step) {
  const auto w = std::int16_t(width), h = std::int16_t(height);
  const std::int16_t termX = 0, termY = std::int16_t(h / 10), termW = std::int16_t(w / 2),
                     termH = std::int16_t(h * 8 / 10), line = 16;
  painter.copy(termX, std::int16_t(termY + line), std::uint16_t(termW), std::uint16_t(termH - line),
               termX, termY);
  painter.fill(0x1e1e1e, termX, std::int16_t(termY + termH - line), std::uint16_t(termW),
               std::uint16_t(line));
  for (int word = 0, x = 8; word < 8 && x < termW - 40; ++word) {
    const int length = 24 + (step * 7 + word * 13) % 60;
    painter.fill(0xd0d0d0, std::int16_t(termX + x), std::int16_t(termY + termH - line + 4),
                 std::uint16_t(length), 8);
    x += length + 8;
  }
  const std::int16_t winW = std::int16_t(w / 3), winH = std::int16_t(h / 3);
  const int travel = w - winW;
  auto left = [&](int s) { return std::int16_t(std::abs((s * 6) % (2 * travel) - travel)); };
  const std::int16_t winY = std::int16_t(h / 2);
  painter.fill(0x2a4f7a, left(step - 1), winY, std::uint16_t(winW), std::uint16_t(winH));
  painter.fill(0xf0f0f0, left(step), winY, std::uint16_t(winW), std::uint16_t(winH));
  painter.fill(0x3c3c3c, left(step), winY, std::uint16_t(winW), 24);
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::size_t(p * double(values.size() - 1))];
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Capture time to encoded packet, and frames per second sustained, while the desktop changes.
void captureToEncoded(benchmark::State& state) {
  const int width = int(state.range(0)), height = int(state.range(1));
  XDesktop desktop(width, height);
  if (!desktop.available()) return state.SkipWithError(desktop.skipReason().c_str());
  std::mutex lock;
  std::vector<double> latencies;
  LibavHEVCEncoder encoder(LibavBackend::libx265(), CodecProfile::hevcMain, 16000000,
                           [&](EncoderOutput output) {
                             if (auto* f = std::get_if<encoderOutput::frame>(&output)) {
                               std::lock_guard guard(lock);
                               latencies.push_back(f->latencyMs);
                             }
                           });
  constexpr auto kRun = std::chrono::seconds(8);
  constexpr auto kTick = std::chrono::microseconds(16667);
  for (auto _ : state) {
    auto source =
        desktop.capture([&](CapturedFrame frame) { encoder.encode(frame, false, false); });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the first session opens
    {
      std::lock_guard guard(lock);
      latencies.clear();
    }
    const auto start = Clock::now();
    int step = 0;
    for (auto next = start; Clock::now() - start < kRun; next += kTick) {
      animate(desktop.painter(), width, height, ++step);
      std::this_thread::sleep_until(next + kTick);
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    desktop.stop(*source);
    encoder.stop();
    std::lock_guard guard(lock);
    state.counters["fps"] = double(latencies.size()) / elapsed;
    state.counters["p50_ms"] = percentile(latencies, 0.50);
    state.counters["p95_ms"] = percentile(latencies, 0.95);
    state.counters["drawn_fps"] = double(step) / elapsed;
  }
}
BENCHMARK(captureToEncoded)
    ->Args({1280, 720})
    ->Args({1920, 1080})
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

// This process's processor time on a still screen, as a share of one core: capture armed, the
// pipeline with its idle refresh, the encoder waiting.
void stillScreenCpu(benchmark::State& state) {
  const int width = int(state.range(0)), height = int(state.range(1));
  XDesktop desktop(width, height);
  if (!desktop.available()) return state.SkipWithError(desktop.skipReason().c_str());
  auto encoder = std::make_shared<LibavHEVCEncoder>(LibavBackend::libx265(), CodecProfile::hevcMain,
                                                    16000000, [](EncoderOutput) {});
  auto pipeline = VideoPipeline::make(desktop.executor(), encoder, std::chrono::milliseconds(150));
  constexpr auto kMeasured = std::chrono::seconds(10);
  for (auto _ : state) {
    auto source = desktop.capture([pipeline](CapturedFrame frame) { pipeline->submit(frame); });
    std::this_thread::sleep_for(std::chrono::seconds(2));  // first frame and its refresh
    const double cpuBefore = cpuSeconds();
    const auto start = Clock::now();
    std::this_thread::sleep_for(kMeasured);
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    state.counters["cpu_percent"] = 100 * (cpuSeconds() - cpuBefore) / wall;
    desktop.stop(*source);
  }
  pipeline->stop();
}
BENCHMARK(stillScreenCpu)
    ->Args({1920, 1080})
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

}  // namespace
}  // namespace kelvaron::host
