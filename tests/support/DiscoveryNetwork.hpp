#pragma once

// A one-machine network for discovery tests, inside a network namespace of the test's own:
// "tovu0" (10.77.0.1/24 and fd77::1/64) with its peer "tovu1" so that it has a carrier, a private
// system bus (dbus-daemon) that this process and its children reach through
// DBUS_SYSTEM_BUS_ADDRESS, and avahi-daemon on tovu0 alone.
//
// avahi-daemon writes its pid file and socket under /run/avahi-daemon, where the machine's own
// daemon may be; it gets a private mount namespace with a tmpfs over /run, which leaves the test
// process's mounts alone.

#include <avahi-client/client.h>
#include <avahi-common/simple-watch.h>
#include <sys/mount.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/NetworkNamespace.hpp"

namespace kelvaron::test {

class DiscoveryNetwork {
 public:
  enum class Avahi { start, later };

  explicit DiscoveryNetwork(Avahi avahi = Avahi::start) {
    if (!network_.problem().empty()) {
      problem_ = network_.problem();
      return;
    }
    for (const char* program : {"dbus-daemon", "avahi-daemon", "avahi-browse"}) {
      if (!runCommand({"sh", "-c", std::string("command -v ") + program}).succeeded()) {
        problem_ = std::string(program) + " is not installed";
        return;
      }
    }
    try {
      NetworkNamespace::addEthernet("tovu0", "tovu1", "10.77.0.1/24");
      NetworkNamespace::ip({"-6", "address", "add", "fd77::1/64", "dev", "tovu0", "nodad"});
    } catch (const std::exception& error) {
      problem_ = error.what();
      return;
    }
    startBus();
    if (problem_.empty() && avahi == Avahi::start) startAvahi();
  }

  ~DiscoveryNetwork() {
    avahiDaemon_.reset();
    bus_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  // Empty when everything is up; otherwise why not.
  const std::string& problem() const { return problem_; }

  // Starts avahi-daemon and waits until it serves; sets `problem()` when it does not.
  void startAvahi() {
    writeFile("avahi-daemon.conf",
              "[server]\nallow-interfaces=tovu0\nuse-ipv4=yes\nuse-ipv6=yes\nenable-dbus=yes\n"
              "[wide-area]\nenable-wide-area=no\n"
              "[publish]\npublish-hinfo=no\npublish-workstation=no\n");
    avahiDaemon_.emplace(
        std::vector<std::string>{"avahi-daemon", "--no-chroot", "--no-drop-root", "--no-rlimits",
                                 "-f", folder_ / "avahi-daemon.conf"},
        folder_ / "avahi-daemon.log", withPrivateRun);
    if (!avahiServes()) problem_ = "avahi-daemon did not come up:\n" + readFile("avahi-daemon.log");
  }

  void stopAvahi() { avahiDaemon_.reset(); }

  // What an independent client sees: `avahi-browse -rpt type`.
  static CommandResult browseWithAvahiUtils(const std::string& type) {
    return runCommand({"avahi-browse", "-rpt", type});
  }

 private:
  static constexpr auto kDeadline = std::chrono::seconds(10);

  // libdbus reads the bus address once per process, so a process keeps one folder for all its
  // tests; each test has a process of its own under CTest anyway.
  static std::filesystem::path processFolder() {
    return std::filesystem::temp_directory_path() /
           ("tovu-discovery-" + std::to_string(::getpid()));
  }

  void startBus() {
    std::filesystem::remove_all(folder_);
    std::filesystem::create_directories(folder_);
    const auto socket = folder_ / "bus";
    writeFile("bus.conf",
              "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig>\n  <type>system</type>\n  <listen>unix:path=" +
                  socket.string() +
                  "</listen>\n  <auth>EXTERNAL</auth>\n"
                  "  <policy context=\"default\">\n    <allow user=\"*\"/>\n"
                  "    <allow own=\"*\"/>\n    <allow send_type=\"method_call\"/>\n"
                  "    <allow send_requested_reply=\"false\"/>\n"
                  "    <allow receive_requested_reply=\"false\"/>\n  </policy>\n</busconfig>\n");
    bus_.emplace(std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile",
                                          "--config-file=" + (folder_ / "bus.conf").string()},
                 folder_ / "dbus-daemon.log");
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!std::filesystem::exists(socket) && bus_->running() &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!std::filesystem::exists(socket)) {
      problem_ = "dbus-daemon did not come up:\n" + readFile("dbus-daemon.log");
      return;
    }
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socket.string()).c_str(), 1);
  }

  // In the child, before exec: a mount namespace of its own with an empty /run.
  static bool withPrivateRun() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0;
  }

  // Whether a client of the bus finds the daemon running (its host name settled) in time.
  bool avahiServes() {
    std::unique_ptr<AvahiSimplePoll, decltype(&avahi_simple_poll_free)> poll(
        avahi_simple_poll_new(), avahi_simple_poll_free);
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (std::chrono::steady_clock::now() < deadline && avahiDaemon_->running()) {
      int error = 0;
      AvahiClient* client = avahi_client_new(avahi_simple_poll_get(poll.get()), AvahiClientFlags{},
                                             nullptr, nullptr, &error);
      if (!client) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        continue;
      }
      while (avahi_client_get_state(client) == AVAHI_CLIENT_S_REGISTERING &&
             std::chrono::steady_clock::now() < deadline) {
        avahi_simple_poll_iterate(poll.get(), 50);
      }
      const bool running = avahi_client_get_state(client) == AVAHI_CLIENT_S_RUNNING;
      avahi_client_free(client);
      if (running) return true;
    }
    return false;
  }

  void writeFile(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ / name) << text;
  }

  std::string readFile(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(folder_ / name).rdbuf();
    return text.str();
  }

  NetworkNamespace network_;
  std::filesystem::path folder_ = processFolder();
  std::optional<ChildProcess> bus_;
  std::optional<ChildProcess> avahiDaemon_;
  std::string problem_;
};

}  // namespace kelvaron::test
