// tovu-host: lets a paired iPhone or iPad see and drive this computer's X display.

#include <ifaddrs.h>
#include <net/if.h>
#include <qrencode.h>
#include <unistd.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "apps/common/CommandLine.hpp"
#include "host/app/AppModel.hpp"
#include "host/app/HostComposition.hpp"
#include "host/app/RelaySettings.hpp"
#include "host/x11/XvfbServer.hpp"

using namespace kelvaron;
using namespace kelvaron::host;

namespace {

constexpr const char* kUsage = R"(Usage: tovu-host [options]
       tovu-host remote enable --coordinator URL --invite CODE [--ca FILE]
       tovu-host remote status | disable

Lets a paired iPhone or iPad see and drive this computer's X display.

Remote access lets paired devices reach this computer from outside its network, through a relay:
"remote enable" enrols the host at the coordinator URL with an invite (--ca: the certificate to
trust for a coordinator of one's own) and turns remote access on; "remote disable" turns it off,
keeping the enrolment; "remote status" says how it stands. A running host takes the change when it
starts again.

Options:
  --display NAME         the X display to serve (default: $DISPLAY)
  --virtual-display WxH  start a virtual display (Xvfb) of that size and serve it
  --port N               the UDP port to listen on (default: any; kept across restarts)
  --pair                 print a pairing link, and its QR code, for a new device (and a
                         fresh one after each pairing)
  --confirm              let devices pair by comparing codes, confirmed here on the terminal
  --no-advertise         do not announce the host on the local network (DNS-SD)
  --headless             run without a tray item (the only way this build runs)
  --help                 show this text
)";

struct Options {
  std::vector<std::string> command;  // "remote" and what to do
  std::string coordinator, invite, ca;
  std::string display;
  std::optional<std::pair<int, int>> virtualDisplay;
  std::optional<std::uint16_t> port;
  bool pair = false;
  bool confirm = false;
  bool advertise = true;
};

// "1920x1080": the width and height of a virtual display, 16 to 8192 each.
std::pair<int, int> parseSize(std::string_view text) {
  const std::size_t cross = text.find('x');
  const auto width = apps::parseNumber(text.substr(0, cross), 16, 8192);
  const auto height = cross == std::string_view::npos
                          ? std::nullopt
                          : apps::parseNumber(text.substr(cross + 1), 16, 8192);
  if (!width || !height) throw apps::UsageError("--virtual-display wants a size such as 1920x1080");
  return {*width, *height};
}

// The options, each written where the command line says.
apps::CommandLine commandLine(Options& options) {
  apps::CommandLine line("tovu-host", kUsage);
  line.option("--display", [&](const std::string& name) { options.display = name; })
      .option("--virtual-display",
              [&](const std::string& size) { options.virtualDisplay = parseSize(size); })
      .option("--port",
              [&](const std::string& text) {
                options.port = apps::parseNumber<std::uint16_t>(text, 1, 65535);
                if (!options.port) throw apps::UsageError("--port wants a number from 1 to 65535");
              })
      .flag("--pair", [&] { options.pair = true; })
      .flag("--confirm", [&] { options.confirm = true; })
      .flag("--no-advertise", [&] { options.advertise = false; })
      .flag("--headless", [] {})  // the only mode there is for now
      .option("--coordinator", [&](const std::string& url) { options.coordinator = url; })
      .option("--invite", [&](const std::string& code) { options.invite = code; })
      .option("--ca", [&](const std::string& file) { options.ca = file; })
      .operands([&](const std::string& word) { options.command.push_back(word); });
  return line;
}

std::string hostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "Linux host";
  return name;
}

// The link as a QR code of half-height blocks, dark on light, with its quiet zone.
void printQRCode(const std::string& text) {
  QRcode* code = QRcode_encodeString(text.c_str(), 0, QR_ECLEVEL_L, QR_MODE_8, 1);
  if (!code) return;
  const int size = code->width, quiet = 2;
  auto dark = [&](int x, int y) {
    return x >= 0 && y >= 0 && x < size && y < size && (code->data[y * size + x] & 1);
  };
  for (int y = -quiet; y < size + quiet; y += 2) {
    std::string line;
    for (int x = -quiet; x < size + quiet; ++x) {
      const bool top = dark(x, y), bottom = dark(x, y + 1);
      line += top && bottom ? " " : top ? "\u2584" : bottom ? "\u2580" : "\u2588";
    }
    std::cout << line << "\n";
  }
  QRcode_free(code);
}

// "HOST:PORT" of this machine for another one on its network: the first IPv4 address of an
// interface that is up, else its first IPv6 address that is not link-local (which would need the
// interface's name). Nothing on a machine with loopback alone.
std::optional<std::string> dialableAddress(std::uint16_t port) {
  ifaddrs* all = nullptr;
  if (::getifaddrs(&all) != 0) return std::nullopt;
  std::optional<asio::ip::address> v4, v6;
  for (const ifaddrs* entry = all; entry; entry = entry->ifa_next) {
    const unsigned flags = entry->ifa_flags;
    if (!entry->ifa_addr || !(flags & IFF_UP) || !(flags & IFF_RUNNING) || (flags & IFF_LOOPBACK)) {
      continue;
    }
    if (entry->ifa_addr->sa_family == AF_INET && !v4) {
      const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
      v4 = asio::ip::make_address_v4(ntohl(address->sin_addr.s_addr));
    } else if (entry->ifa_addr->sa_family == AF_INET6 && !v6) {
      asio::ip::address_v6::bytes_type bytes;
      std::memcpy(bytes.data(), &reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr,
                  bytes.size());
      if (const asio::ip::address_v6 address(bytes); !address.is_link_local()) v6 = address;
    }
  }
  ::freeifaddrs(all);
  const auto chosen = v4 ? v4 : v6;
  if (!chosen) return std::nullopt;
  std::ostringstream text;
  text << asio::ip::udp::endpoint(*chosen, port);  // IPv6 in brackets
  return text.str();
}

// What the terminal has been told.
struct Shown {
  std::optional<ListenerState> listener;
  // Where the host can be dialled: looked up when the listener changes, which it does when the
  // network does.
  std::optional<std::string> address;
  // How many devices were paired, and where the host was, when the link was shown.
  std::optional<std::pair<std::size_t, std::optional<std::string>>> link;
  bool discoveryOff = false;
  bool error = false;
  std::optional<std::string> remote;  // remote access, as last said
};

// Where the host listens, and why not where it was asked to.
void showListening(const ListenerSupervisor& supervisor) {
  const std::uint16_t port = supervisor.state().port;
  std::cout << "tovu-host: listening on UDP port " << port;
  if (const auto& abandoned = supervisor.abandonedPort(); abandoned && abandoned->port != port) {
    std::cout << " (port " << abandoned->port << " could not be used: " << abandoned->reason << ")";
  }
  std::cout << std::endl;
}

// A link for the next device, with where the host can be dialled, and its QR code.
void showPairingLink(HostPairingService& service, std::optional<std::string> address) {
  PairingURL link = service.pairingURL(service.issueToken());
  link.address = std::move(address);
  const std::string url = link.url();
  std::cout << "\nPair a device within five minutes with this link:\n" << url << "\n\n";
  printQRCode(url);
  std::cout << std::endl;
}

// Tells the person at the terminal what they need: where the host listens, whether it can be
// found on the network, and how to pair.
void watch(asio::steady_timer& timer, std::shared_ptr<AppModel> model, bool pair, Shown shown) {
  timer.expires_after(std::chrono::milliseconds(200));
  timer.async_wait([&timer, model, pair, shown](const asio::error_code& failure) mutable {
    if (failure) return;
    const auto* supervisor = model->supervisor();
    const bool listening =
        supervisor && supervisor->state().kind == ListenerState::Kind::advertising;
    if (listening && supervisor->state() != shown.listener) {
      showListening(*supervisor);
      shown.address = dialableAddress(supervisor->state().port);
    }
    if (supervisor) shown.listener = supervisor->state();
    if (listening && supervisor->discoveryProblem() && !shown.discoveryOff) {
      std::cout << "tovu-host: Discovery on the local network is off: "
                << *supervisor->discoveryProblem() << std::endl;
      shown.discoveryOff = true;
    }
    // One link at a time, and a fresh one once it has served or the host has moved.
    if (pair && listening) {
      const auto& service = model->security()->service;
      const auto current = std::pair(service->store()->all().size(), shown.address);
      if (shown.link != current) {
        showPairingLink(*service, current.second);
        shown.link = current;
      }
    }
    if (const auto& relay = model->relay(); relay && relay->statusText() != shown.remote) {
      shown.remote = relay->statusText();
      if (shown.remote) std::cout << "tovu-host: remote access: " << *shown.remote << std::endl;
    }
    if (model->securityError() && !shown.error) {
      std::cerr << "tovu-host: " << *model->securityError() << std::endl;
      shown.error = true;
    }
    watch(timer, model, pair, shown);
  });
}

// "remote enable": the host's key enrolled at the coordinator with the invite, and remote access
// on.
int enableRemoteAccess(const Options& options, RelaySettings& settings) {
  if (options.coordinator.empty() || options.invite.empty()) {
    throw apps::UsageError("remote enable wants --coordinator URL and --invite CODE");
  }
  if (!options.ca.empty() && !std::filesystem::exists(options.ca)) {
    throw apps::UsageError("no certificate file " + options.ca);
  }
  // Nothing is saved before the enrolment holds: a mistyped address or a used invite leaves the
  // last enrolment as it was.
  const auto ca =
      options.ca.empty() ? std::nullopt : std::optional(std::filesystem::absolute(options.ca));
  const auto signer =
      std::make_shared<P256RelaySigner>(HostComposition::loadIdentity().privateKey());
  const auto coordinator = HostComposition::coordinatorClient(options.coordinator, ca, signer);
  const std::string url = coordinator->baseURL();
  asio::io_context io;
  std::optional<std::string> label;
  std::exception_ptr failure;
  asio::co_spawn(
      io,
      [&]() -> asio::awaitable<void> {
        auto enrolling = coordinator->enroll(options.invite);  // named: GCC 12
        label = co_await std::move(enrolling);
      },
      [&](std::exception_ptr e) { failure = e; });
  io.run();
  if (failure) std::rethrow_exception(failure);
  settings.setCoordinatorURL(url);
  settings.setCoordinatorCA(ca);
  settings.saveEnrollment(*label, url);
  settings.setEnabled(true);
  std::cout << "Remote access is on: enrolled as " << *label << " at " << url << std::endl;
  return 0;
}

int remoteAccess(const Options& options) {
  const std::string what = options.command.size() == 2 ? options.command[1] : "";
  RelaySettings settings(std::make_shared<Settings>(Settings::defaultLocation()));
  if (what == "enable") return enableRemoteAccess(options, settings);
  if (what == "disable") {
    settings.setEnabled(false);
    std::cout << "Remote access is off" << std::endl;
    return 0;
  }
  if (what != "status") throw apps::UsageError("remote wants enable, disable or status");
  const auto account = settings.account();
  std::cout << "Remote access is " << (settings.enabled() && account ? "on" : "off");
  if (account) {
    std::cout << ": enrolled as " << account->label << " at " << account->url;
  } else if (!settings.coordinatorURL().empty()) {
    std::cout << ": not enrolled at " << settings.coordinatorURL();
  } else {
    std::cout << ": not enrolled";
  }
  std::cout << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const apps::CommandLine line = commandLine(options);
  if (const auto status = line.parse(argc, argv)) return *status;
  if (!options.command.empty()) {
    try {
      if (options.command[0] != "remote") {
        throw apps::UsageError("unknown command " + options.command[0] + " (see --help)");
      }
      return remoteAccess(options);
    } catch (const apps::UsageError& mistake) {
      return line.fail(mistake.what());
    } catch (const std::exception& failure) {
      std::cerr << "tovu-host: " << failure.what() << std::endl;
      return 1;
    }
  }
  std::unique_ptr<XvfbServer> xvfb;
  if (options.virtualDisplay) {
    try {
      xvfb = std::make_unique<XvfbServer>(options.virtualDisplay->first,
                                          options.virtualDisplay->second);
    } catch (const std::exception& failure) {
      return line.fail(failure.what());
    }
    options.display = xvfb->name();
    std::cout << "tovu-host: virtual display " << options.display << std::endl;
  }
  const char* environmentDisplay = std::getenv("DISPLAY");
  if (options.display.empty() && !(environmentDisplay && *environmentDisplay)) {
    return line.fail("no X display: set DISPLAY, or pass --display NAME or --virtual-display WxH");
  }
  const Permissions permissions = HostComposition::readPermissions(options.display);
  if (!permissions.screenRecording) {
    return line.fail("cannot open the X display " + options.display);
  }
  if (!permissions.accessibility) {
    std::cerr << "tovu-host: the X server has no XTEST extension: the device can watch, not drive"
              << std::endl;
  }

  asio::io_context io;
  const Executor main = makeStrand(io.get_executor());
  asio::io_context capture;
  auto captureWork = asio::make_work_guard(capture);
  std::thread captureThread([&] { capture.run(); });
  HostComposition composition(
      {main, io.get_executor(), capture.get_executor()},
      {options.display, hostName(), options.port, options.advertise, options.confirm});
  const auto model = AppModel::make(main, composition.dependencies());
  asio::steady_timer timer(main);
  asio::post(main, [&] {
    model->start();
    watch(timer, model, options.pair, {});
  });

  asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&](const asio::error_code& error, int) {
    if (error) return;
    std::cout << "tovu-host: stopping" << std::endl;
    asio::post(main, [&] {
      timer.cancel();
      model->stop();
    });
    // Once every session's teardown is over, the executors are let go.
    asio::co_spawn(
        main,
        [&]() -> asio::awaitable<void> {
          co_await model->sessionsEnded();
          // Sessions undo their own resizes; whatever one could not is undone here.
          co_await composition.fitRegistry()->restoreAll();
          io.stop();
        },
        asio::detached);
  });
  std::thread second([&] { io.run(); });
  io.run();
  second.join();
  captureWork.reset();
  capture.stop();
  captureThread.join();
  return 0;
}
