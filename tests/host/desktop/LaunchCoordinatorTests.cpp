// The launch coordinator against a launcher and windows the test arranges, on a clock it moves.

#include <gtest/gtest.h>

#include <asio/post.hpp>

#include "host/desktop/LaunchCoordinator.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/HostFakes.hpp"
#include "tests/support/ManualClock.hpp"

namespace kelvaron::host {
namespace {

using test::FakeWindows;

// Applications by ID: "editor" runs as 10 once opened; "ghost" is not installed; "broken" fails
// for a reason of its own.
struct FakeLauncher : AppLaunching {
  std::map<std::string, std::int32_t> running;
  std::vector<std::string> opened;
  asio::awaitable<std::optional<std::int32_t>> runningPID(std::string id) override {
    const auto found = running.find(id);
    co_return found == running.end() ? std::nullopt : std::optional(found->second);
  }
  asio::awaitable<void> open(std::string id) override {
    opened.push_back(id);
    if (id == "ghost") throw LaunchFailure("App not found");
    if (id == "broken") throw std::runtime_error("exec failed");
    running[id] = 10;
    co_return;
  }
};

struct Launches {
  explicit Launches(asio::io_context& context) : io(context) {
    const std::function<double()> now = [this] {
      return std::chrono::duration<double>(clock.now() - start).count();
    };
    LaunchActions actions{
        [this](std::int32_t pid, std::uint32_t id, bool focus) -> asio::awaitable<LaunchState> {
          windows->log.push_back("reveal " + std::to_string(pid) + " " + std::to_string(id));
          co_return focus ? LaunchState::focused : LaunchState::broughtToFront;
        },
        [this](std::int32_t pid) -> asio::awaitable<void> {
          windows->log.push_back("new window " + std::to_string(pid));
          co_return;
        }};
    coordinator = std::make_shared<LaunchCoordinator>(
        io.get_executor(),
        LaunchCoordinator::Parts{
            launcher, windows, LaunchClock{now, [this](auto d) { return clock.sleep(d); }},
            std::move(actions), [this](LaunchStatus status) { sent.push_back(status); }});
  }

  // Lets every task run as far as it can at this time.
  asio::awaitable<void> settle() {
    for (int i = 0; i < 50; ++i) co_await asio::post(io, asio::use_awaitable);
  }
  // Moves the clock in poll-sized steps, letting the watch look each time.
  asio::awaitable<void> pass(double seconds) {
    for (double done = 0; done < seconds - 1e-9; done += 0.2) {
      clock.advance(std::chrono::duration<double>(0.2));
      co_await settle();
    }
  }
  void showWindow(std::uint32_t id, double width, double height) {
    windows->list.push_back(
        {.id = id, .pid = 10, .frame = {0, 0, width, height}, .isOnScreen = true});
  }
  std::vector<std::string> states() const {
    static constexpr const char* kNames[] = {"",          "launching", "focused",  "front",
                                             "no window", "failed",    "cancelled"};
    std::vector<std::string> names;
    for (const LaunchStatus& s : sent) {
      names.push_back(s.bundleID + " " + kNames[int(s.state)] + " " + std::to_string(s.elapsedMs) +
                      (s.detail.empty() ? "" : " " + s.detail));
    }
    return names;
  }

  asio::io_context& io;
  test::ManualClock clock;
  const WallClock::time_point start = clock.now();
  std::shared_ptr<FakeLauncher> launcher = std::make_shared<FakeLauncher>();
  std::shared_ptr<FakeWindows> windows = std::make_shared<FakeWindows>();
  std::vector<LaunchStatus> sent;
  std::shared_ptr<LaunchCoordinator> coordinator;
};

using Strings = std::vector<std::string>;

TEST(LaunchCoordinator, RevealsAWindowThatIsThereOrComesAndReportsWhatCannotOpen) {
  test::runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Launches l(io);
    // Running with a usable window: the first status is the final one, nothing is opened.
    l.launcher->running["editor"] = 10;
    l.showWindow(100, 100, 60);
    l.coordinator->launch("editor", true);
    co_await l.settle();
    EXPECT_EQ(l.states(), Strings{"editor focused 0"});
    EXPECT_TRUE(l.launcher->opened.empty());

    // Running with only a window too small to count: opened, then polled until one comes.
    l.sent.clear();
    l.windows->list = {};
    l.showWindow(101, 90, 90);
    l.coordinator->launch("editor", false);
    co_await l.pass(1);
    l.showWindow(102, 400, 300);
    co_await l.pass(0.2);
    EXPECT_EQ(l.states(), (Strings{"editor launching 0", "editor front 1200"}));
    EXPECT_EQ(l.launcher->opened, Strings{"editor"});
    EXPECT_EQ(l.windows->log.back(), "reveal 10 102");

    l.sent.clear();
    l.coordinator->launch("ghost", false);
    co_await l.settle();
    l.coordinator->launch("broken", false);
    co_await l.settle();
    EXPECT_EQ(l.states(), (Strings{"ghost launching 0", "ghost failed 0 App not found",
                                   "broken launching 0", "broken failed 0 Couldn’t open the app"}));
  });
}

TEST(LaunchCoordinator, AfterTheTimeLimitTheDeviceChoosesToWaitAskForAWindowOrCancel) {
  test::runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Launches l(io);
    l.coordinator->launch("editor", false);
    co_await l.pass(15);
    EXPECT_EQ(l.states(), (Strings{"editor launching 0", "editor no window 15000"}));

    // Another application's choice changes nothing; waiting on gives a fresh limit, while the
    // time reported counts from the launch.
    co_await l.coordinator->control("other", LaunchAction::cancel);
    co_await l.coordinator->control("editor", LaunchAction::keepWaiting);
    co_await l.pass(15);
    EXPECT_EQ(l.states().back(), "editor no window 30000");

    co_await l.coordinator->control("editor", LaunchAction::newWindow);
    EXPECT_EQ(l.windows->log.back(), "new window 10");
    l.showWindow(100, 640, 480);
    co_await l.pass(0.2);
    EXPECT_EQ(l.states().back(), "editor front 30200");

    l.sent.clear();
    l.windows->list = {};
    l.coordinator->launch("editor", false);
    co_await l.pass(1);
    co_await l.coordinator->control("editor", LaunchAction::cancel);
    co_await l.pass(20);  // nothing more from the cancelled watch
    EXPECT_EQ(l.states(), (Strings{"editor launching 0", "editor cancelled 1000"}));
  });
}

TEST(LaunchCoordinator, ANewLaunchCancelsTheOneInProgress) {
  test::runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Launches l(io);
    l.coordinator->launch("editor", false);
    co_await l.pass(2);
    l.coordinator->launch("viewer", false);
    co_await l.pass(15);
    EXPECT_EQ(l.states(), (Strings{"editor launching 0", "editor cancelled 2000",
                                   "viewer launching 0", "viewer no window 15000"}));
  });
}

}  // namespace
}  // namespace kelvaron::host
