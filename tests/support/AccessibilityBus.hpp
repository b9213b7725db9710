#pragma once

// A private accessibility bus for tests on an X display: a session bus of its own (dbus-daemon),
// at-spi-bus-launcher with the accessibility bus (and the registry it starts), settings in memory
// and a runtime folder of its own, so that nothing leaks from the user's session or from one run
// into the next. The launcher stops first, then the session bus, whose end takes the registry
// with it. Tests skip with the reason when a part is missing.

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <ranges>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::test {

// Environment variables of this process set (a value) or removed (none) for the life of the
// object, and put back afterwards.
class ScopedEnvironment {
 public:
  using Values = std::vector<std::pair<std::string, std::optional<std::string>>>;
  explicit ScopedEnvironment(const Values& values = {}) {
    for (const auto& [name, value] : values) set(name, value);
  }
  ~ScopedEnvironment() {
    for (const auto& [name, value] : saved_ | std::views::reverse) apply(name, value);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  void set(const std::string& name, const std::optional<std::string>& value) {
    const char* before = std::getenv(name.c_str());
    saved_.emplace_back(name, before ? std::optional<std::string>(before) : std::nullopt);
    apply(name, value);
  }

 private:
  static void apply(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
      ::setenv(name.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(name.c_str());
    }
  }
  Values saved_;
};

class AccessibilityBus {
 public:
  static constexpr const char* kLauncher = "/usr/libexec/at-spi-bus-launcher";

  // `displayName` is the display of the programs that join, where the launcher also leaves the
  // bus's address (AT_SPI_BUS); empty when the display comes later (a host's own virtual display):
  // programs then find the bus through the session bus, and name their display themselves.
  explicit AccessibilityBus(const std::string& displayName = "") : display_(displayName) {
    if (::access(kLauncher, X_OK) != 0) {
      reason_ = std::string(kLauncher) + " is missing (Debian package at-spi2-core)";
      return;
    }
    std::filesystem::create_directories(runtime());
    std::filesystem::permissions(runtime(), std::filesystem::perms::owner_all);
    const auto busLog = folder_ / "session-bus.log";
    sessionBus_ = std::make_unique<ChildProcess>(
        withEnvironment({"dbus-daemon", "--session", "--nofork", "--print-address=1"}), busLog);
    address_ = waitForAddress(busLog);
    if (address_.empty()) {
      reason_ = "dbus-daemon gave no session bus address: " + read(busLog);
      return;
    }
    launcher_ = std::make_unique<ChildProcess>(withEnvironment({kLauncher, "--launch-immediately"}),
                                               folder_ / "launcher.log");
    // Waits for the launcher's name without asking the bus to start another launcher.
    const auto owned = runCommand(
        withEnvironment({"gdbus", "wait", "--session", "--timeout", "10", "org.a11y.Bus"}));
    if (!owned.succeeded()) {
      reason_ = "at-spi-bus-launcher did not take its name: " + owned.output +
                read(folder_ / "launcher.log");
      return;
    }
  }

  bool available() const { return reason_.empty(); }
  const std::string& skipReason() const { return reason_; }
  const std::string& sessionAddress() const { return address_; }

  // What a program needs to join the display and the bus, as NAME=VALUE.
  std::vector<std::string> environment() const {
    std::vector<std::string> names = {"XDG_RUNTIME_DIR=" + runtime().string(),
                                      "GSETTINGS_BACKEND=memory"};
    if (!display_.empty()) names.push_back("DISPLAY=" + display_);
    if (!address_.empty()) names.push_back("DBUS_SESSION_BUS_ADDRESS=" + address_);
    return names;
  }
  // `arguments` run through env(1) with `environment()`; they may begin with more NAME=VALUE
  // (such as "DISPLAY=:5").
  std::vector<std::string> withEnvironment(const std::vector<std::string>& arguments) const {
    // Without the switches that keep GTK off the bus or send its clients to another one.
    std::vector<std::string> result = {"env", "-u", "AT_SPI_BUS_ADDRESS", "-u", "NO_AT_BRIDGE"};
    const auto names = environment();
    result.insert(result.end(), names.begin(), names.end());
    result.insert(result.end(), arguments.begin(), arguments.end());
    return result;
  }

  // Points this process (libatspi, GIO) at the display and the bus until the object goes. Call it
  // before the process has threads that read the environment.
  void exportToProcess() {
    exported_.set("AT_SPI_BUS_ADDRESS", std::nullopt);
    for (const auto& name : environment()) {
      const auto equals = name.find('=');
      exported_.set(name.substr(0, equals), name.substr(equals + 1));
    }
  }

  // What the session says of org.a11y.Status IsEnabled; nothing when it cannot be read.
  std::optional<bool> accessibilityEnabled() const {
    const auto reply = runCommand(withEnvironment(
        {"gdbus", "call", "--session", "--dest", "org.a11y.Bus", "--object-path", "/org/a11y/bus",
         "--method", "org.freedesktop.DBus.Properties.Get", "org.a11y.Status", "IsEnabled"}));
    if (!reply.succeeded()) return std::nullopt;
    if (reply.output.find("true") != std::string::npos) return true;
    if (reply.output.find("false") != std::string::npos) return false;
    return std::nullopt;
  }

 private:
  std::filesystem::path runtime() const { return folder_ / "run"; }

  static std::string read(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  static std::string waitForAddress(const std::filesystem::path& log) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      std::istringstream lines(read(log));
      std::string line;
      while (std::getline(lines, line)) {
        if (line.rfind("unix:", 0) == 0) return line;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return {};
  }

  std::string display_;
  TempDirectory folder_;
  std::string reason_;
  std::string address_;
  // Gone in reverse order: the environment is put back, the launcher stops, then the session bus.
  std::unique_ptr<ChildProcess> sessionBus_;
  std::unique_ptr<ChildProcess> launcher_;
  ScopedEnvironment exported_;
};

#define SKIP_WITHOUT_ACCESSIBILITY_BUS(bus) \
  if (!(bus).available()) GTEST_SKIP() << (bus).skipReason()

}  // namespace kelvaron::test
