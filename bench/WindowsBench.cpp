// What the window system costs and how soon focus mode follows the computer, on a real Xvfb with
// openbox (both started here):
//  - One `apps()` snapshot with WINDOWS managed windows (made by this program, five to an
//    application name): the mean and p95 of the wall time of 50 snapshots.
//  - A focus change on the host (another window activated through the window manager, as a click
//    would) to the `streamMode` that follows it at an in-process client that asked for no video:
//    10 changes, p50 and the largest. The session polls every 0.25 s and waits 0.3 s for the
//    focus to settle; after a switch it ignores the focus for 0.8 s.
//  - The app list on an idle desktop: the bytes of the first `appList` and `recentApps`, then of
//    every such message (encoded as on the wire) in the IDLE seconds that follow, nothing moving.
//
//   windows_bench [WINDOWS [IDLE]]

#include <xcb/xcb.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <thread>

#include "bench/BenchSession.hpp"
#include "host/desktop/X11FocusObserver.hpp"
#include "host/desktop/X11WindowSystem.hpp"
#include "host/session/HostSession.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "kit/wire/WireCodec.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using Clock = std::chrono::steady_clock;

double milliseconds(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

double percentile(std::vector<double> values, double p) {
  std::ranges::sort(values);
  return values[std::min(values.size() - 1, std::size_t(p * double(values.size())))];
}

void setText(xcb_connection_t* c, xcb_window_t window, xcb_atom_t property, xcb_atom_t type,
             const std::string& text) {
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, property, type, 8,
                      std::uint32_t(text.size()), text.data());
}

xcb_atom_t atom(xcb_connection_t* c, const char* name) {
  const auto reply = xcb_intern_atom_reply(
      c, xcb_intern_atom(c, 0, std::uint16_t(std::strlen(name)), name), nullptr);
  const xcb_atom_t found = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
  std::free(reply);
  return found;
}

// `count` ordinary windows, five to an application class, spread over the screen.
std::vector<xcb_window_t> makeWindows(xcb_connection_t* c, int count) {
  const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
  const xcb_atom_t utf8 = atom(c, "UTF8_STRING"), netName = atom(c, "_NET_WM_NAME");
  std::vector<xcb_window_t> windows;
  for (int i = 0; i < count; ++i) {
    const xcb_window_t w = xcb_generate_id(c);
    const std::uint32_t values[] = {screen->white_pixel};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, w, screen->root, std::int16_t(20 * (i % 40)),
                      std::int16_t(15 * (i % 40)), 400, 300, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      screen->root_visual, XCB_CW_BACK_PIXEL, values);
    const std::string name = "Window " + std::to_string(i);
    setText(c, w, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, name);
    setText(c, w, netName, utf8, name);
    const std::string app = "bench" + std::to_string(i / 5);
    const std::string wmClass = app + '\0' + app + '\0';
    setText(c, w, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, wmClass);
    xcb_map_window(c, w);
    windows.push_back(w);
  }
  xcb_flush(c);
  return windows;
}

// Activates `window` through the window manager, as a pager (and a person's click) would.
void activate(xcb_connection_t* c, xcb_window_t window) {
  const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
  xcb_client_message_event_t event{};
  event.response_type = XCB_CLIENT_MESSAGE;
  event.format = 32;
  event.window = window;
  event.type = atom(c, "_NET_ACTIVE_WINDOW");
  event.data.data32[0] = 2;
  xcb_send_event(c, 0, screen->root,
                 XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                 reinterpret_cast<const char*>(&event));
  xcb_flush(c);
}

asio::awaitable<void> snapshots(X11WindowSystem& windows, int expected) {
  // The window manager takes a moment to manage them all.
  for (int tries = 0; tries < 100; ++tries) {
    const auto apps = co_await windows.apps();
    std::size_t listed = 0;
    for (const AppInfo& app : apps) listed += app.windows.size();
    if (int(listed) >= expected) break;
    co_await sleepFor(std::chrono::milliseconds(100));
  }
  std::vector<double> times;
  for (int i = 0; i < 50; ++i) {
    const auto started = Clock::now();
    const auto apps = co_await windows.apps();
    times.push_back(milliseconds(Clock::now() - started));
  }
  double sum = 0;
  for (const double t : times) sum += t;
  std::printf("apps() with %d windows: mean %.2f ms, p95 %.2f ms\n", expected,
              sum / double(times.size()), percentile(times, 0.95));
}

// In focus mode on the first window, activates the other two in turn and times each to the
// `streamMode` that follows it.
asio::awaitable<void> follow(std::shared_ptr<Connection> client, xcb_connection_t* c,
                             std::vector<xcb_window_t> windows, std::int32_t pid) {
  client->send(msg::setVideoEnabled{false});
  client->send(msg::hello{kProtocolVersion,
                          UUID{{1}},
                          "bench",
                          {{CodecProfile::hevcMain}, 1920, 1080, 2, "bench", false}});
  const auto next = [&]() -> asio::awaitable<std::optional<StreamModeInfo>> {
    while (const auto message = co_await client->messages().next()) {
      if (const auto* mode = std::get_if<msg::streamMode>(&*message)) co_return mode->info;
    }
    co_return std::nullopt;
  };
  co_await sleepFor(std::chrono::milliseconds(500));
  client->send(msg::focus{pid, windows[0], false, false});
  co_await next();
  std::vector<double> delays;
  for (int i = 1; i <= 10; ++i) {
    co_await sleepFor(std::chrono::seconds(1));  // past the grace after the last switch
    const xcb_window_t target = windows[std::size_t(i % 3)];
    const auto started = Clock::now();
    activate(c, target);
    for (;;) {
      const auto mode = co_await next();
      if (!mode) co_return;
      const auto* focus = std::get_if<streammode::focus>(&mode->mode);
      if (focus && focus->windowID == target) break;
    }
    delays.push_back(milliseconds(Clock::now() - started));
  }
  std::printf("focus change to streamMode: p50 %.0f ms, max %.0f ms (%zu changes)\n",
              percentile(delays, 0.5), *std::ranges::max_element(delays), delays.size());
}

// The app list's bytes: the first list, then what an idle desktop costs for `seconds`.
asio::awaitable<void> idleAppList(std::shared_ptr<Connection> client, int seconds) {
  client->send(msg::unfocus{});
  client->send(msg::setAppListUpdates{true});
  std::size_t first = 0, later = 0, messages = 0;
  bool listed = false;
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  while (Clock::now() < end) {
    auto next = nextWithin(client->messages(), std::chrono::milliseconds(200));
    const std::optional<Message> message = co_await std::move(next);
    if (!message) continue;
    if (!std::holds_alternative<msg::appList>(*message) &&
        !std::holds_alternative<msg::recentApps>(*message)) {
      continue;
    }
    const std::size_t bytes = WireCodec::encodeMessage(*message).size();
    if (!listed) {
      first += bytes;
      listed = std::holds_alternative<msg::recentApps>(*message);
      continue;
    }
    later += bytes;
    ++messages;
  }
  std::printf("app list: first %zu bytes; then %zu bytes in %zu messages over %d s idle\n", first,
              later, messages, seconds);
}

asio::awaitable<void> sessionFigures(std::shared_ptr<Connection> client, xcb_connection_t* c,
                                     std::vector<xcb_window_t> windows, int idleSeconds) {
  co_await follow(client, c, std::move(windows), ::getpid());
  co_await idleAppList(client, idleSeconds);
  client->close();
}

int measure(int count, int idleSeconds) {
  test::VirtualDisplay x(1920, 1080);
  if (!x.available()) {
    std::cerr << "windows_bench: " << x.skipReason() << "\n";
    return 1;
  }
  test::TempDirectory logs;
  test::ChildProcess windowManager({"env", "DISPLAY=" + x.name(), "openbox", "--sm-disable"},
                                   logs.path() / "openbox.log");
  std::this_thread::sleep_for(std::chrono::seconds(1));
  xcb_connection_t* c = xcb_connect(x.name().c_str(), nullptr);
  const std::vector<xcb_window_t> windows = makeWindows(c, count);

  asio::io_context io;
  asio::thread_pool pool(2);
  const auto system = std::make_shared<X11WindowSystem>(pool.get_executor(), x.name());
  asio::co_spawn(io, snapshots(*system, count), asio::detached);
  io.run();
  io.restart();

  auto [clientEnd, hostEnd] = InMemoryConnection::makePair();
  HostEnvironment env = benchEnvironment(pool.get_executor(), x.name());
  env.apps = system;
  env.windowControl = system;
  env.windowTracker = system;
  env.focusObserver = std::make_shared<X11FocusObserver>(*system);
  const auto session = HostSession::make(io.get_executor(), hostEnd, env, nullptr, Data{1}, {});
  asio::co_spawn(io, session->run(), asio::detached);
  asio::co_spawn(io, sessionFigures(clientEnd, c, windows, idleSeconds), asio::detached);
  io.run();
  xcb_disconnect(c);
  return 0;
}

}  // namespace
}  // namespace kelvaron::host

int main(int argc, char** argv) {
  return kelvaron::host::measure(argc > 1 ? std::stoi(argv[1]) : 50,
                                 argc > 2 ? std::stoi(argv[2]) : 60);
}
