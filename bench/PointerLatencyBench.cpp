// How long a pointer move takes from the client to the X server while the host streams: signs in
// to a paired host as this client, reads its video without decoding it (the frames still have to
// come), sends an absolute move every 10 ms along a line of the screen's bare root window, and
// notes when the X server reports each position there. Prints p50, p99 and the largest delay.
//
//   pointer_latency_bench DISPLAY HOST:PORT HOST [SECONDS]   (HOST: the paired host's ID or name)
//
// bench/pointer-latency.sh sets up the host, a busy screen and the pairing around it.

#include <xcb/xcb.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "client/ClientDevice.hpp"
#include "client/Flow.hpp"
#include "client/HostDirectory.hpp"
#include "kit/async/Task.hpp"

namespace kelvaron::client {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLineY = 1040;  // below the terminal, where the root window gets the motion
constexpr int kFirstX = 100, kPositions = 1700;

// When the X server reported the pointer at each x on the line, first time only.
class MotionWatch {
 public:
  explicit MotionWatch(const std::string& display)
      : c_(xcb_connect(display.c_str(), nullptr)), thread_([this] { watch(); }) {}
  ~MotionWatch() {
    xcb_disconnect(c_);  // ends the wait for events
    thread_.join();
  }
  std::map<int, Clock::time_point> arrivals() {
    std::lock_guard guard(lock_);
    return arrivals_;
  }

 private:
  void watch() {
    if (xcb_connection_has_error(c_)) return;
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c_)).data->root;
    const std::uint32_t mask = XCB_EVENT_MASK_POINTER_MOTION;
    xcb_change_window_attributes(c_, root, XCB_CW_EVENT_MASK, &mask);
    xcb_flush(c_);
    while (xcb_generic_event_t* event = xcb_wait_for_event(c_)) {
      const auto now = Clock::now();
      if ((event->response_type & 0x7f) == XCB_MOTION_NOTIFY) {
        const auto* motion = reinterpret_cast<xcb_motion_notify_event_t*>(event);
        std::lock_guard guard(lock_);
        if (motion->root_y == kLineY) arrivals_.try_emplace(motion->root_x, now);
      }
      std::free(event);
    }
  }

  xcb_connection_t* c_;
  std::mutex lock_;
  std::map<int, Clock::time_point> arrivals_;
  std::thread thread_;
};

struct Probe {
  std::map<int, Clock::time_point> sent;
  int frames = 0;
};

// Keeps the stream flowing: every frame read, a feedback each second, nothing decoded.
asio::awaitable<void> readVideo(std::shared_ptr<Connection> connection, Probe& probe) {
  auto lastFeedback = Clock::now();
  int framesThisSecond = 0;
  while (const auto frame = co_await connection->videoFrames().next()) {
    ++probe.frames;
    ++framesThisSecond;
    if (Clock::now() - lastFeedback >= std::chrono::seconds(1)) {
      connection->send(msg::feedback{{std::uint32_t(framesThisSecond), 0, 0, false}});
      framesThisSecond = 0;
      lastFeedback = Clock::now();
    }
  }
}

asio::awaitable<void> probe(std::string host, QUICConnection::Endpoint address, double seconds,
                            Probe& probe) {
  ClientDevice device;
  const auto paired = device.hosts.match(UUID::parse(host), host);
  if (!paired) throw FlowError("not paired with " + host);
  const HostDirectory directory(address);
  const auto connection = co_await directory.dial([](const DiscoveredHost&) { return true; },
                                                  ServerTrust::pinned(paired->fingerprint));
  const std::function<void(const std::string&)> noCode;
  co_await device.signIn(connection, ClientHandshake::Purpose::authenticate(),
                         std::chrono::seconds(10), noCode, "the host did not let this device in");
  connection->send(device.hello());
  // The display being streamed, whose frame in points the moves are fractions of.
  std::optional<DisplayInfo> display;
  std::vector<DisplayInfo> displays;
  while (!display) {
    const auto message = co_await connection->messages().next();
    if (!message) throw FlowError("the host ended the session");
    if (const auto* list = std::get_if<msg::displayList>(&*message)) displays = list->displays;
    if (const auto* info = std::get_if<msg::streamInfo>(&*message)) {
      const auto found = std::ranges::find(displays, info->displayID, &DisplayInfo::id);
      if (found != displays.end()) display = *found;
    }
  }
  asio::co_spawn(co_await asio::this_coro::executor, readVideo(connection, probe), asio::detached);
  co_await sleepFor(std::chrono::seconds(2));  // the stream settles
  const int moves = int(seconds * 100);
  for (int i = 0; i < moves && i < kPositions; ++i) {
    const int x = kFirstX + i;
    const float unitX = float((x + 0.25 - display->frame.x) / display->frame.width);
    const float unitY = float((kLineY + 0.25 - display->frame.y) / display->frame.height);
    probe.sent[x] = Clock::now();
    connection->send(
        msg::pointer{std::uint32_t(i + 1), pointer::moveAbsolute{display->id, unitX, unitY}});
    co_await sleepFor(std::chrono::milliseconds(10));
  }
  co_await sleepFor(std::chrono::milliseconds(500));  // the last moves arrive
  connection->close();
}

double percentile(std::vector<double> values, double p) {
  std::ranges::sort(values);
  return values[std::min(values.size() - 1, std::size_t(p * double(values.size())))];
}

}  // namespace
}  // namespace kelvaron::client

int main(int argc, char** argv) {
  using namespace kelvaron::client;
  if (argc < 4) {
    std::cerr << "usage: pointer_latency_bench DISPLAY HOST:PORT HOST [SECONDS]\n";
    return 2;
  }
  const auto address = parseEndpoint(argv[2]);
  if (!address) {
    std::cerr << "pointer_latency_bench: HOST:PORT wanted\n";
    return 2;
  }
  const double seconds = argc > 4 ? std::stod(argv[4]) : 10;
  MotionWatch watch(argv[1]);
  Probe result;
  const int status = runFlow([&] { return probe(argv[3], *address, seconds, result); }, std::cerr);
  if (status != 0) return status;
  const auto arrivals = watch.arrivals();
  std::vector<double> delays;
  for (const auto& [x, sent] : result.sent) {
    const auto arrived = arrivals.find(x);
    if (arrived == arrivals.end()) continue;
    delays.push_back(std::chrono::duration<double, std::milli>(arrived->second - sent).count());
  }
  if (delays.empty()) {
    std::cerr << "pointer_latency_bench: no move arrived\n";
    return 1;
  }
  std::printf(
      "%zu of %zu moves arrived while %d frames streamed: p50 %.1f ms, p99 %.1f ms, "
      "max %.1f ms\n",
      delays.size(), result.sent.size(), result.frames, percentile(delays, 0.5),
      percentile(delays, 0.99), *std::ranges::max_element(delays));
  return 0;
}
