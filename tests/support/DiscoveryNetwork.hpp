#pragma once

// A one-machine network for discovery tests, inside a network namespace of the test's own:
// "tovu0" (10.77.0.1/24 and fd77::1/64) with its peer "tovu1" so that it has a carrier, a private
// bus (dbus-daemon) that this process and its children reach as their system bus, and
// avahi-daemon on tovu0 alone. avahi-daemon writes under /run/avahi-daemon, where the machine's
// own daemon may be: it gets a private mount namespace with a tmpfs over /run.

#include <sys/mount.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/NetworkNamespace.hpp"

// Declares the network `name` (arguments: those of its constructor); skips the test without it.
#define START_DISCOVERY_NETWORK(name, ...)              \
  ::kelvaron::test::DiscoveryNetwork name{__VA_ARGS__}; \
  if (!name.problem().empty()) GTEST_SKIP() << name.problem()

namespace kelvaron::test {

class DiscoveryNetwork {
 public:
  enum class Avahi { start, later };

  explicit DiscoveryNetwork(Avahi avahi = Avahi::start) {
    problem_ = network_.problem();
    for (const char* program : {"dbus-daemon", "avahi-daemon", "avahi-browse"}) {
      if (problem_.empty() &&
          !runCommand({"sh", "-c", std::string("command -v ") + program}).succeeded()) {
        problem_ = std::string(program) + " is not installed";
      }
    }
    if (!problem_.empty()) return;
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
    // It serves once an independent client of the bus can browse through it.
    const auto serves = [] {
      return runCommand({"timeout", "5", "avahi-browse", "-at"}).succeeded();
    };
    if (!waitFor(*avahiDaemon_, serves))
      problem_ = "avahi-daemon did not come up:\n" + readFile("avahi-daemon.log");
  }

  void stopAvahi() { avahiDaemon_.reset(); }

 private:
  void startBus() {
    // libdbus reads the bus address once per process, so a process keeps one folder for all its
    // tests; each test has a process of its own under CTest anyway.
    std::filesystem::remove_all(folder_);
    std::filesystem::create_directories(folder_);
    // The session bus's configuration lets anyone own and call anything, which is all
    // avahi-daemon needs; at this address it is the system bus of this process and its children.
    const std::string address = "unix:path=" + (folder_ / "bus").string();
    bus_.emplace(std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--nopidfile",
                                          "--address=" + address},
                 folder_ / "dbus-daemon.log");
    if (!waitFor(*bus_, [&] { return std::filesystem::exists(folder_ / "bus"); })) {
      problem_ = "dbus-daemon did not come up:\n" + readFile("dbus-daemon.log");
    }
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  }

  // Whether `ready` holds within ten seconds, while `process` runs.
  static bool waitFor(ChildProcess& process, const std::function<bool()>& ready) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!ready()) {
      if (!process.running() || std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
  }

  // In the child, before exec: a mount namespace of its own with an empty /run.
  static bool withPrivateRun() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") == 0;
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
  std::filesystem::path folder_ =
      std::filesystem::temp_directory_path() / ("tovu-discovery-" + std::to_string(::getpid()));
  std::optional<ChildProcess> bus_;
  std::optional<ChildProcess> avahiDaemon_;
  std::string problem_;
};

}  // namespace kelvaron::test
