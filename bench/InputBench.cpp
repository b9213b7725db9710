// A burst of 1,000 relative pointer moves through XTestInjector into a real Xvfb (which the
// benchmark starts): events per second and the cost of one, from the first call to the last move
// having gone out to the server.

#include <benchmark/benchmark.h>

#include "host/input/XTestInjector.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

constexpr InputOwner kOwner = 1;

void pointerMoveBurst(benchmark::State& state) {
  test::VirtualDisplay x(1920, 1080);
  if (!x.available()) return state.SkipWithError(x.skipReason().c_str());
  XTestInjector injector(x.name());
  injector.injectPointer(kOwner, pointer::moveAbsolute{0, 0.5f, 0.5f},
                         DisplayInfo{1, "screen", true, 1920, 1080, {0, 0, 1920, 1080}});
  constexpr int kMoves = 1000;
  for (auto _ : state) {
    for (int i = 0; i < kMoves; ++i) {
      const float step = i % 2 == 0 ? 3.0f : -3.0f;
      injector.injectPointer(kOwner, pointer::moveRelative{step, step}, std::nullopt);
    }
    benchmark::DoNotOptimize(injector.currentPointerPosition());  // waits for the last to go out
  }
  state.counters["moves_per_s"] =
      benchmark::Counter(double(kMoves) * double(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["us_per_move"] =
      benchmark::Counter(double(kMoves) * double(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(pointerMoveBurst)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);

}  // namespace
}  // namespace kelvaron::host
