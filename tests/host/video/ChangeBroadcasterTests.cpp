// ChangeBroadcaster on a real io_context, with a short debounce.

#include "host/video/ChangeBroadcaster.hpp"

#include <gtest/gtest.h>

#include "tests/support/AsyncTest.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

constexpr auto kDebounce = 100ms;

TEST(ChangeBroadcaster, KeepsOneSignalForALateReader) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    ChangeBroadcaster broadcaster(io.get_executor(), kDebounce);
    const auto prompt = broadcaster.subscribe();
    const auto late = broadcaster.subscribe();
    // Three bursts, each seen through by the prompt reader before the next.
    for (int burst = 0; burst < 3; ++burst) {
      broadcaster.signal();
      const auto signal = co_await nextWithin(*prompt, 5s);
      CO_ASSERT_TRUE(signal.has_value());
    }
    CO_ASSERT_TRUE(late->count() == 1);
    const auto held = co_await nextWithin(*late, 1s);
    CO_ASSERT_TRUE(held.has_value());
  });
}

// A burst is one signal for each subscriber; a dropped stream is not kept and is forgotten.
TEST(ChangeBroadcaster, FoldsABurstForEachSubscriberForgetsDroppedOnesAndEndsTheRestWhenItGoes) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    auto broadcaster = std::make_unique<ChangeBroadcaster>(io.get_executor(), kDebounce);
    const auto kept = broadcaster->subscribe(), other = broadcaster->subscribe();
    auto dropped = broadcaster->subscribe();
    const std::weak_ptr<AsyncQueue<ChangeSignal>> weak = dropped;
    dropped.reset();
    CO_ASSERT_TRUE(weak.expired());
    CO_ASSERT_TRUE(broadcaster->subscriberCount() == 3);

    for (int i = 0; i < 5; ++i) broadcaster->signal();
    for (const auto& stream : {kept, other}) {
      const auto signal = co_await nextWithin(*stream, 5s);
      CO_ASSERT_TRUE(signal.has_value());
      const auto more = co_await nextWithin(*stream, 4 * kDebounce);
      CO_ASSERT_TRUE(!more.has_value());
    }
    CO_ASSERT_TRUE(broadcaster->subscriberCount() == 2);

    broadcaster.reset();
    CO_ASSERT_TRUE(kept->isFinished());
  });
}

}  // namespace
}  // namespace kelvaron::host
