// What the device's tree of actions costs, through a HostSession over an in-memory connection,
// on a real Xvfb with openbox, a private session bus and a menu registrar (all started here):
//  - Read and send: from `watchActions(true)` to the `appActions` at the client (the front
//    application found, its menus read and converted, the message encoded as on the wire), 20
//    times for each test program: GTK's exported menu model, the same with 2,000 items more, and
//    Qt 6's dbusmenu. p50 and p95, and the message's bytes.
//  - Watching a GTK program whose menus change every second, for SECONDS: the `appActions` sent
//    and their bytes, and the CPU time of this process (the session and the menu reader) and of
//    the program, per second.
//
//   menus_bench [SECONDS]

#include <sys/resource.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "bench/BenchSession.hpp"
#include "host/desktop/DesktopMenuSource.hpp"
#include "host/desktop/X11WindowSystem.hpp"
#include "host/session/HostSession.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "kit/wire/WireCodec.hpp"
#include "tests/support/AccessibilityBus.hpp"
#include "tests/support/BusObject.hpp"
#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double milliseconds(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

double percentile(std::vector<double> values, double p) {
  std::ranges::sort(values);
  return values[std::min(values.size() - 1, std::size_t(p * double(values.size())))];
}

// CPU seconds (user and system) of this process, or of the process `pid` from /proc.
double cpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}
double cpuSeconds(int pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  const std::string line(std::istreambuf_iterator<char>(stat), {});
  // The fields after the command's closing parenthesis; utime and stime are the 12th and 13th.
  std::istringstream fields(line.substr(line.rfind(')') + 2));
  std::string field;
  for (int i = 0; i < 11; ++i) fields >> field;
  double user = 0, system = 0;
  fields >> user >> system;
  return (user + system) / double(::sysconf(_SC_CLK_TCK));
}

struct Program {
  std::string name;
  std::vector<std::string> command;
};

class Bench {
 public:
  Bench(test::AccessibilityBus& bus, std::string display, std::shared_ptr<Connection> client,
        std::shared_ptr<MenuSource> menus)
      : bus_(bus),
        display_(std::move(display)),
        client_(std::move(client)),
        menus_(std::move(menus)) {}

  asio::awaitable<void> run(std::vector<Program> programs, Program changing, int seconds) {
    client_->send(msg::setVideoEnabled{false});
    client_->send(msg::hello{kProtocolVersion,
                             UUID{{1}},
                             "bench",
                             {{CodecProfile::hevcMain}, 1920, 1080, 2, "bench", false}});
    for (const Program& program : programs) {
      auto starting = start(program);
      const auto app = co_await std::move(starting);
      if (!app) continue;
      auto measuring = readAndSend(program.name);
      co_await std::move(measuring);
    }
    auto starting = start(changing);
    const auto app = co_await std::move(starting);
    if (app) {
      auto watching = watch(app->pid(), seconds);
      co_await std::move(watching);
    }
    client_->close();
  }

 private:
  // The program, once it is the application in front.
  asio::awaitable<std::unique_ptr<test::ChildProcess>> start(const Program& program) {
    std::vector<std::string> command = {"DISPLAY=" + display_};
    command.insert(command.end(), program.command.begin(), program.command.end());
    auto app = std::make_unique<test::ChildProcess>(bus_.withEnvironment(command),
                                                    logs_.path() / (program.name + ".log"));
    for (int i = 0; i < 500; ++i) {
      auto asking = menus_->frontmost();
      const std::optional<FrontApp> front = co_await std::move(asking);
      if (front && front->pid == app->pid()) co_return app;
      co_await sleepFor(20ms);
    }
    std::printf("%s: did not come to the front\n", program.name.c_str());
    co_return nullptr;
  }

  asio::awaitable<std::optional<msg::appActions>> nextActions(Clock::duration within) {
    const auto end = Clock::now() + within;
    while (Clock::now() < end) {
      auto next = nextWithin(client_->messages(), std::chrono::milliseconds(100));
      const std::optional<Message> message = co_await std::move(next);
      if (!message) continue;
      if (const auto* actions = std::get_if<msg::appActions>(&*message)) co_return *actions;
    }
    co_return std::nullopt;
  }

  asio::awaitable<void> readAndSend(const std::string& name) {
    std::vector<double> times;
    std::size_t bytes = 0, items = 0;
    for (int i = 0; i <= 20; ++i) {
      client_->send(msg::watchActions{false});
      const auto started = Clock::now();
      client_->send(msg::watchActions{true});
      auto waiting = nextActions(5s);
      const std::optional<msg::appActions> actions = co_await std::move(waiting);
      if (!actions) break;
      const Message message = *actions;
      bytes = WireCodec::encodeMessage(message).size();
      if (i > 0) times.push_back(milliseconds(Clock::now() - started));  // the first warms up
      items = 0;
      countItems(actions->menu, items);
    }
    client_->send(msg::watchActions{false});
    if (times.empty()) {
      std::printf("%s: no appActions\n", name.c_str());
      co_return;
    }
    std::printf("%-28s %5zu items, %7zu bytes: read and send p50 %6.2f ms, p95 %6.2f ms (%zu)\n",
                name.c_str(), items, bytes, percentile(times, 0.5), percentile(times, 0.95),
                times.size());
  }

  static void countItems(const std::vector<MenuNode>& nodes, std::size_t& count) {
    for (const MenuNode& node : nodes) {
      ++count;
      countItems(node.children, count);
    }
  }

  asio::awaitable<void> watch(int pid, int seconds) {
    client_->send(msg::watchActions{true});
    auto first = nextActions(5s);
    co_await std::move(first);
    const double hostBefore = cpuSeconds(), appBefore = cpuSeconds(pid);
    const auto started = Clock::now();
    std::size_t messages = 0, bytes = 0;
    while (Clock::now() - started < std::chrono::seconds(seconds)) {
      const auto left = std::chrono::seconds(seconds) - (Clock::now() - started);
      auto waiting = nextActions(left);
      const std::optional<msg::appActions> actions = co_await std::move(waiting);
      if (!actions) continue;
      ++messages;
      const Message message = *actions;
      bytes += WireCodec::encodeMessage(message).size();
    }
    const double host = cpuSeconds() - hostBefore, app = cpuSeconds(pid) - appBefore;
    std::printf(
        "watching menus that change every second, %d s: %zu appActions, %zu bytes; CPU per second: "
        "host %.2f ms (%.2f %% of a core), program %.2f ms\n",
        seconds, messages, bytes, host * 1000 / seconds, host * 100 / seconds,
        app * 1000 / seconds);
  }

  test::AccessibilityBus& bus_;
  const std::string display_;
  const std::shared_ptr<Connection> client_;
  const std::shared_ptr<MenuSource> menus_;
  test::TempDirectory logs_;
};

int measure(int seconds) {
  test::VirtualDisplay x(1280, 800);
  test::AccessibilityBus bus;
  if (!x.available() || !bus.available()) {
    std::cerr << "menus_bench: " << x.skipReason() << bus.skipReason() << "\n";
    return 1;
  }
  bus.exportToProcess();
  const auto registrar = test::menuRegistrar(bus.sessionAddress());
  test::TempDirectory logs;
  test::ChildProcess windowManager({"env", "DISPLAY=" + x.name(), "openbox", "--sm-disable"},
                                   logs.path() / "openbox.log");
  if (!test::windowManagerRuns(x.name())) {
    std::cerr << "menus_bench: openbox did not start\n";
    return 1;
  }

  asio::io_context io;
  asio::thread_pool pool(2);
  const auto windows = std::make_shared<X11WindowSystem>(pool.get_executor(), x.name());
  const auto menus = std::make_shared<DesktopMenuSource>(pool.get_executor(), windows, x.name());
  auto [clientEnd, hostEnd] = InMemoryConnection::makePair();
  HostEnvironment env = benchEnvironment(pool.get_executor(), x.name());
  env.apps = windows;
  env.menus = menus;
  const auto session = HostSession::make(io.get_executor(), hostEnd, env, nullptr, Data{1}, {});
  asio::co_spawn(io, session->run(), asio::detached);

  const std::string gtk = TOVU_MENU_APP;
  const std::vector<Program> programs = {
      {"GTK menu model", {"NO_AT_BRIDGE=1", gtk}},
      {"GTK menu model, 2,000 more", {"NO_AT_BRIDGE=1", gtk, "--items", "2000"}},
      {"Qt 6 dbusmenu", {"QT_ACCESSIBILITY=0", TOVU_QT_MENU_APP}},
  };
  Bench bench(bus, x.name(), clientEnd, menus);
  asio::co_spawn(
      io, bench.run(programs, {"GTK, changing", {"NO_AT_BRIDGE=1", gtk, "--changing"}}, seconds),
      asio::detached);
  io.run();
  return 0;
}

}  // namespace
}  // namespace kelvaron::host

int main(int argc, char** argv) {
  return kelvaron::host::measure(argc > 1 ? std::stoi(argv[1]) : 30);
}
