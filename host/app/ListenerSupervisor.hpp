#pragma once

#include <asio/awaitable.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kit/async/Task.hpp"
#include "kit/log/Logger.hpp"
#include "kit/transport/Connection.hpp"

namespace kelvaron::host {

struct ListenerState {
  enum class Kind { idle, starting, advertising, retrying };
  Kind kind = Kind::idle;
  std::uint16_t port = 0;  // advertising
  int attempt = 0;         // retrying
  double delay = 0;        // retrying, seconds

  static ListenerState advertising(std::uint16_t port) { return {Kind::advertising, port}; }
  static ListenerState retrying(int attempt, double delay) {
    return {Kind::retrying, 0, attempt, delay};
  }
  friend bool operator==(const ListenerState&, const ListenerState&) = default;
};

// 1, 2, 4, 8, 16, then 30 s for every later retry.
struct BackoffPolicy {
  double base = 1.0;
  double factor = 2.0;
  double maximum = 30.0;
  double delay(int retry) const;
};

// A listener being started, and how to learn its port once it is up (a failure throws).
struct ListenerStart {
  std::shared_ptr<HostListener> listener;
  std::function<asio::awaitable<std::uint16_t>()> ready;
  // Why it is not announced on the local network although it was asked to be, in words for a
  // person; nothing otherwise.
  std::optional<std::string> discoveryProblem;
};

// A port the supervisor stopped asking for, and the failure that made it.
struct AbandonedPort {
  std::uint16_t port = 0;
  std::string reason;
};

struct ListenerStoppedUnexpectedly : std::runtime_error {
  ListenerStoppedUnexpectedly() : std::runtime_error("listener stopped unexpectedly") {}
};

// Keeps one listener alive for as long as the host runs: starts it, hands over what it accepts,
// and when it fails starts it again after a growing delay, keeping its UDP port when it can (a
// port is tried twice, then any port). Runs on the main executor: call it only from there. Its
// loop ends with its last owner.
class ListenerSupervisor : public std::enable_shared_from_this<ListenerSupervisor> {
 public:
  // Builds a listener on a port, or on any port; may throw.
  using Factory = std::function<ListenerStart(std::optional<std::uint16_t> port)>;

  // `firstPort` is asked for first, and kept as a port that worked would be: tried twice, then
  // any port.
  static std::shared_ptr<ListenerSupervisor> make(
      const Executor& mainExecutor, Factory factory,
      std::function<void(std::shared_ptr<Connection>)> onConnection, Sleeper sleep = sleepFor,
      BackoffPolicy backoff = {}, std::optional<std::uint16_t> firstPort = std::nullopt);
  ~ListenerSupervisor();

  // The one start: at start-up, after a wake from sleep, and when the network changes.
  void restart();
  void stop();

  const ListenerState& state() const { return state_; }
  const std::vector<std::optional<std::uint16_t>>& requestedPorts() const {
    return requestedPorts_;
  }
  // The last port given up for any port, so that a listener elsewhere can say why.
  const std::optional<AbandonedPort>& abandonedPort() const { return abandonedPort_; }
  // That of the listener that came up last.
  const std::optional<std::string>& discoveryProblem() const { return discoveryProblem_; }
  // Told the port when advertising, and nothing when it is gone.
  void setOnPortChange(std::function<void(std::optional<std::uint16_t>)> handler) {
    onPortChange_ = std::move(handler);
  }

 private:
  ListenerSupervisor(const Executor& executor, Factory factory,
                     std::function<void(std::shared_ptr<Connection>)> onConnection, Sleeper sleep,
                     BackoffPolicy backoff, std::optional<std::uint16_t> firstPort);

  static asio::awaitable<std::shared_ptr<ListenerSupervisor>> current(
      const std::weak_ptr<ListenerSupervisor>& weak, int generation);
  static asio::awaitable<void> run(std::weak_ptr<ListenerSupervisor> weak, int generation);
  ListenerStart startListener();
  void listening(std::uint16_t port, const std::optional<std::string>& discoveryProblem);
  double fail(const std::string& reason, int& attempts);
  void setState(ListenerState state);

  Executor executor_;
  Factory factory_;
  std::function<void(std::shared_ptr<Connection>)> onConnection_;
  Sleeper sleep_;
  BackoffPolicy backoff_;
  ListenerState state_;
  int generation_ = 0;
  Task task_;
  std::optional<ListenerStart> current_;
  std::optional<std::uint16_t> lastPort_;
  int failuresOnPort_ = 0;
  std::vector<std::optional<std::uint16_t>> requestedPorts_;
  std::optional<AbandonedPort> abandonedPort_;
  std::optional<std::string> discoveryProblem_;
  std::function<void(std::optional<std::uint16_t>)> onPortChange_;
  Logger log_{"io.dovka.tovu.transport", "listener"};
};

// The network as the host sees it: whether it is usable, and the names of its interfaces.
struct NetworkPathSignature {
  bool satisfied = false;
  std::vector<std::string> interfaces;  // sorted
  friend bool operator==(const NetworkPathSignature&, const NetworkPathSignature&) = default;
};

// Whether a new network path calls for a restart of the listener: coming online, or a change of
// interfaces while online. Going offline does not.
bool pathChangeRequiresRestart(const std::optional<NetworkPathSignature>& previous,
                               const NetworkPathSignature& next);

}  // namespace kelvaron::host
