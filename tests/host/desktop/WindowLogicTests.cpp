// The window list, focus following and the registry of fits: pure rules over records.

#include <gtest/gtest.h>

#include <asio/post.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "host/desktop/AppListing.hpp"
#include "host/desktop/FitRestoreRegistry.hpp"
#include "host/desktop/FocusFollowing.hpp"
#include "tests/support/AsyncTest.hpp"

namespace kelvaron::host {
namespace {

DisplayInfo display(std::uint32_t id, DisplayFrame frame) { return {.id = id, .frame = frame}; }

WindowRecord window(std::uint32_t id, std::int32_t pid, Rect frame, bool onScreen = true,
                    int layer = kNormalLayer) {
  return {.id = id, .pid = pid, .frame = frame, .layer = layer, .isOnScreen = onScreen};
}

RunningAppRecord app(std::int32_t pid, std::string name, bool frontmost = false,
                     bool hidden = false) {
  return {pid, "app." + name, name, true, frontmost, hidden};
}

// "name: id@display ..." for each application; a window off screen is marked "-", a minimised
// one "m".
std::string listing(const std::vector<AppInfo>& apps) {
  std::ostringstream text;
  for (const auto& app : apps) {
    text << (&app == &apps.front() ? "" : "; ") << app.name << ":";
    for (const auto& w : app.windows)
      text << " " << w.id << "@" << w.displayID << (w.isOnScreen ? "" : "-")
           << (w.isMinimized ? "m" : "");
  }
  return text.str();
}

TEST(AppListing, KeepsWorkWindowsOnScreenFirstAndOffScreenOnesOnlyWhenReachable) {
  const Rect big{100, 100, 400, 300};
  AppListInput input;
  input.displays = {display(7, {0, 0, 1920, 1080}), display(9, {1920, 0, 1280, 1024})};
  input.apps = {app(1, "tiny"),   app(2, "hidden", false, true), app(3, "probed"),
                app(4, "asleep"), app(5, "elsewhere"),           app(6, "helper"),
                app(8, "idle")};
  input.apps[5].isRegular = false;
  input.windows = {
      window(11, 1, {0, 0, 99, 500}),            // too narrow
      window(12, 1, big, true, kFloatingLayer),  // not an ordinary layer
      window(13, 1, {2000, 50, 100, 60}),        // just big enough, on the second display
      window(21, 2, big, false),                 // hidden application: kept as it is
      // The probe says 31 is minimised and knows nothing of 32.
      window(31, 3, big, false), window(32, 3, big, false), window(33, 3, big),
      // Nobody to ask: 41 stays, as 4 shows nothing else (but a floating window); 51 goes.
      window(41, 4, big, false), window(42, 4, big, true, kFloatingLayer),
      window(51, 5, big, false), window(52, 5, big), window(61, 6, big)};
  input.minimized = {{3, {31}}};
  input.icons = {{"app.probed", Data{1, 2, 3}}};

  const auto apps = assembleAppList(input);
  // "helper" is no regular application; "idle" has no window while others have.
  ASSERT_EQ(listing(apps),
            "asleep: 41@7-m; elsewhere: 52@7; hidden: 21@7-; probed: 33@7 31@7-m; tiny: 13@9");
  EXPECT_EQ(apps[3].icon, (Data{1, 2, 3}));
  EXPECT_EQ(apps[4].windows[0].frame, (DisplayFrame{2000, 50, 100, 60}));
}

TEST(AppListing, ListsEveryAppWithoutWindowsFrontmostFirstThenByNameIgnoringAsciiCase) {
  AppListInput input;
  input.apps = {app(1, "beta"), app(2, "alpha"), app(3, "\xC3\x89mile"), app(4, "zed", true),
                app(5, "Alpha")};
  EXPECT_EQ(listing(assembleAppList(input)), "zed:; alpha:; Alpha:; beta:; \xC3\x89mile:");
  // One window of one application anywhere, even off every display: only that one is listed,
  // on the nearest display.
  input.displays = {display(7, {0, 0, 1920, 1080})};
  input.windows = {window(31, 3, {5000, 5000, 200, 200})};
  EXPECT_EQ(listing(assembleAppList(input)), "\xC3\x89mile: 31@7");
  input.displays.clear();
  EXPECT_EQ(listing(assembleAppList(input)), "\xC3\x89mile: 31@0");
}

TEST(AppListing, ADisplayShowsTheMostOfARectangleOrIsTheNearestToIt) {
  const std::vector<DisplayInfo> displays = {display(1, {0, 0, 1920, 1080}),
                                             display(2, {1920, 0, 1280, 1080})};
  const std::vector<std::tuple<Rect, std::optional<std::size_t>, const char*>> cases = {
      {{1800, 100, 400, 300}, 1, "more of it on the second"},
      {{1820, 100, 200, 100}, 0, "half and half: the earlier"},
      {{4000, 100, 100, 100}, 1, "off to the right: the nearer"},
      {{1870, 2000, 100, 100}, 0, "below both, as near to each: the earlier"},
  };
  for (const auto& [rect, expected, what] : cases)
    EXPECT_EQ(displayIndexOf(rect, displays), expected) << what;
  EXPECT_EQ(displayIndexOf({0, 0, 10, 10}, {}), std::nullopt);
}

// "window editor", "popup menu" or "none".
std::string described(const FollowTarget& target) {
  if (const auto* w = std::get_if<follow::window>(&target)) return "window " + w->target.title;
  if (const auto* p = std::get_if<follow::popup>(&target)) return "popup " + p->target.title;
  return "none";
}

TEST(FocusFollowing, ClassifiesDialogsOverlaysAndOtherWindows) {
  constexpr std::int32_t own = 42;
  // The streamed window reaches past the right edge of the only display.
  const FocusedWindow focus{.pid = 100, .windowID = 1000, .frame = {1800, 100, 800, 600}};
  const std::vector<DisplayInfo> displays = {display(1, {0, 0, 1920, 1080})};
  const auto transient = [](const char* title, std::int32_t pid, std::uint32_t id, Rect frame) {
    return ObservedWindow{
        .pid = pid, .windowID = id, .title = title, .frame = frame, .kind = WindowKind::transient};
  };
  const auto standard = [](std::int32_t pid, std::optional<std::uint32_t> id) {
    return ObservedWindow{.pid = pid, .windowID = id, .title = "editor"};
  };
  const auto dialog = transient("dialog", 200, 2001, {300, 300, 300, 200});
  const auto menu = transient("menu", 300, 3000, {50, 50, 200, 400});
  const auto ours = transient("ours", own, 4000, {50, 50, 400, 400});
  const auto sheetAt = [&](double x) { return transient("sheet", 100, 1001, {x, 92, 300, 200}); };

  const std::vector<std::tuple<const char*, FocusObservation, std::string>> cases = {
      {"nothing", {}, "none"},
      {"another window", {standard(200, 2000)}, "window editor"},
      {"the streamed window", {standard(100, 1000)}, "none"},
      {"a window without id", {standard(200, {})}, "none"},
      {"a window of ours", {standard(own, 4001)}, "none"},
      {"a dialog first", {dialog, {menu}}, "popup dialog"},
      {"a dialog too small", {transient("x", 200, 1, {0, 0, 59, 40})}, "none"},
      {"a dialog off the displays", {transient("x", 200, 1, {2100, 300, 300, 200})}, "none"},
      {"a sheet in the streamed window, off the displays", {sheetAt(2300)}, "popup sheet"},
      {"a sheet 9 points out of it", {sheetAt(2309)}, "none"},
      {"a dialog of ours, then an overlay", {ours, {menu}}, "popup menu"},
      {"overlays before another window", {standard(200, 2000), {ours, menu, dialog}}, "popup menu"},
  };
  for (const auto& [what, observation, expected] : cases)
    EXPECT_EQ(described(classify(observation, focus, own, displays)), expected) << what;
}

TEST(FocusFollowing, AFocusedWindowIsAWorkSurfaceOnlyWhenOrdinaryAndResizable) {
  const std::string normal = "_NET_WM_WINDOW_TYPE_NORMAL";
  const std::vector<std::tuple<std::string, std::string, bool, bool, WindowKind>> cases = {
      {"gedit", "", false, true, WindowKind::standard},
      {"gedit", "_NET_WM_WINDOW_TYPE_DIALOG", false, true, WindowKind::transient},
      {"gedit", normal, true, true, WindowKind::transient},
      {"gedit", normal, false, false, WindowKind::transient},
      // The kernel's 15 bytes of a process's name, or the whole name.
      {"polkit-gnome-au", normal, false, true, WindowKind::transient},
      {"polkit-gnome-authentication-agent-1", normal, false, true, WindowKind::transient},
      {"ssh-askpass-helper", normal, false, true, WindowKind::standard},
  };
  for (const auto& [process, type, modal, resizable, kind] : cases)
    EXPECT_EQ(kindOfFocused(process, type, modal, resizable), kind) << process << " " << type;
}

TEST(FocusDebouncer, CommitsATargetThatHeldForTheDelayAndDropsOneAtOnce) {
  const FollowKey a{FollowKey::Kind::window, 1, 10}, b{FollowKey::Kind::window, 2, 20},
      popup{FollowKey::Kind::popup, 2, std::nullopt};
  FocusDebouncer debouncer;  // 0.3 s, sampled every 0.25 s
  const std::optional<FollowKey> none;
  // Committed on the third sample; b, replaced by a popup, starts again at 1.25 s; losing a
  // target is not delayed.
  const std::vector<std::tuple<std::optional<FollowKey>, double, std::optional<FollowKey>>>
      samples = {{a, 0.0, none},  {a, 0.25, none},    {a, 0.5, a},   {b, 0.75, a},
                 {popup, 1.0, a}, {b, 1.25, a},       {b, 1.5, a},   {b, 1.75, b},
                 {b, 2.0, b},     {none, 2.25, none}, {b, 2.5, none}};
  for (const auto& [key, now, expected] : samples)
    EXPECT_EQ(debouncer.offer(key, now), expected) << "at " << now;
  debouncer.reset();
  debouncer.delay = 0;
  EXPECT_EQ(debouncer.offer(popup, 3), popup);
}

TEST(FocusBackStack, MovesARepeatToTheTopAndKeepsTheNewestFour) {
  FocusBackStack stack;
  const auto entry = [](std::uint32_t id) { return BackEntry{1, id, "w", "app"}; };
  for (std::uint32_t id : {1, 2, 3, 1}) stack.push(entry(id));
  EXPECT_EQ(stack.entries, (std::vector<BackEntry>{entry(2), entry(3), entry(1)}));
  for (std::uint32_t id : {4, 5}) stack.push(entry(id));
  stack.remove(4);
  std::vector<std::uint32_t> popped;
  while (const auto top = stack.pop()) popped.push_back(top->windowID);
  EXPECT_EQ(popped, (std::vector<std::uint32_t>{5, 1, 3}));
  EXPECT_TRUE(stack.empty());
}

TEST(FitRestoreRegistry, RestoresEachEntryOnceOutsideItsLock) {
  FitRestoreRegistry registry;
  std::vector<int> restored;
  const UUID failing{{1}}, first{{2}}, second{{3}}, removed{{4}}, later{{5}};
  const auto restoring = [&](int which) -> FitRestoreRegistry::Restore {
    return [&, which]() -> asio::awaitable<void> {
      auto executor = co_await asio::this_coro::executor;
      co_await asio::post(executor, asio::use_awaitable);
      // A restore that comes back to the registry, as a session ending meanwhile would.
      registry.add(later, [&]() -> asio::awaitable<void> { co_return; });
      restored.push_back(which);
    };
  };
  registry.add(first, restoring(1));
  registry.add(second, restoring(2));
  registry.add(failing, []() -> asio::awaitable<void> {
    throw std::runtime_error("the window is gone");
    co_return;
  });
  registry.add(removed, restoring(4));
  registry.remove(removed);
  EXPECT_EQ(registry.size(), 3u);

  test::runAsync([&](asio::io_context&) -> asio::awaitable<void> {
    auto all = registry.restoreAll();
    co_await std::move(all);
  });
  EXPECT_EQ(restored, (std::vector<int>{1, 2}));
  EXPECT_EQ(registry.size(), 1u) << "only what was added while restoring";
}

}  // namespace
}  // namespace kelvaron::host
