#pragma once

// The host's presence at a relay: with admissions from the coordinator it keeps a registration
// alive, retrying with growing pauses, and bridges each relayed client to the host's QUIC
// listener through a loopback socket of its own, so that the listener sees an ordinary peer on
// another local port. Only a removed enrolment ends it for good.

#include <asio/awaitable.hpp>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kit/relay/CoordinatorClient.hpp"
#include "kit/relay/CoordinatorError.hpp"
#include "kit/relay/LoopbackUDP.hpp"
#include "kit/relay/RelayTunnel.hpp"

namespace kelvaron {

struct RelayStatus {
  enum class Kind { registered, error, stopped, connecting };
  Kind kind = Kind::stopped;
  std::string detail;  // the region when registered, the words of an error

  static RelayStatus registered(std::string region) {
    return {Kind::registered, std::move(region)};
  }
  static RelayStatus error(std::string text) { return {Kind::error, std::move(text)}; }
  static RelayStatus connecting() { return {Kind::connecting, {}}; }
  static RelayStatus stopped() { return {Kind::stopped, {}}; }
  // "Ready", "Ready · Singapore", "Connecting…", "Remote access off" or the error's words.
  std::string text() const;
  friend bool operator==(const RelayStatus&, const RelayStatus&) = default;
};

class RelayHostService : public std::enable_shared_from_this<RelayHostService> {
 public:
  struct Options {
    std::chrono::duration<double> keepaliveInterval{15.0};
    std::vector<std::chrono::duration<double>> retryBackoff{
        std::chrono::seconds(2), std::chrono::seconds(5), std::chrono::seconds(10),
        std::chrono::seconds(30)};
    bool watchPath = true;  // register anew when the machine's network changes
    // A token is fetched anew this long before it expires, and never sooner than the floor after
    // the last.
    std::chrono::duration<double> tokenRefreshMargin{120.0};
    std::chrono::duration<double> tokenRefreshFloor{30.0};
  };

  static std::shared_ptr<RelayHostService> make(const Executor& executor,
                                                std::shared_ptr<CoordinatorClient> coordinator,
                                                std::shared_ptr<const RelaySigner> signer,
                                                std::vector<Data> denied, Options options);

  void start();
  // Ends the service for good, and its statuses.
  void stop();
  // Where relayed clients are bridged to; none drops their datagrams.
  void setListenerPort(std::optional<std::uint16_t> port);
  // The client keys the relay is to turn away.
  void setDenied(std::vector<Data> denied);
  // Each relay the service uses, as clients are to be told of it. On the service's executor.
  void setRelaysHandler(std::function<void(std::vector<RelayEndpoint>)> handler);
  // The enrolment is gone (`notEnrolled`, `revoked`); the service has ended. On its executor.
  void setFatalHandler(std::function<void(const CoordinatorError&)> handler);

  AsyncQueue<RelayStatus>& statuses() { return statuses_; }
  RelayStatus current() const;

 private:
  RelayHostService(const Executor& executor, std::shared_ptr<CoordinatorClient> coordinator,
                   std::shared_ptr<const RelaySigner> signer, std::vector<Data> denied,
                   Options options);
  using Flows = std::map<std::uint32_t, std::shared_ptr<LoopbackUDP>>;

  static asio::awaitable<void> run(std::shared_ptr<RelayHostService> self);
  asio::awaitable<std::optional<std::string>> runSession(const RelayAdmission& admission);
  static asio::awaitable<void> refreshTokens(std::shared_ptr<RelayHostService> self,
                                             std::chrono::system_clock::time_point expiresAt);
  std::shared_ptr<LoopbackUDP> flowOf(Flows& flows, std::uint64_t& generation, std::uint32_t peer,
                                      const std::shared_ptr<RelayTunnel>& tunnel);
  void publish(RelayStatus status);
  void endForGood(const CoordinatorError& error);

  const Executor strand_;
  const std::shared_ptr<CoordinatorClient> coordinator_;
  const std::shared_ptr<const RelaySigner> signer_;
  const Options options_;
  AsyncQueue<RelayStatus> statuses_;
  std::function<void(std::vector<RelayEndpoint>)> relaysHandler_;
  std::function<void(const CoordinatorError&)> fatalHandler_;

  mutable std::mutex lock_;
  RelayStatus current_;
  std::optional<std::uint16_t> listenerPort_;
  std::uint64_t portGeneration_ = 0;
  std::vector<Data> denied_;
  bool started_ = false, ended_ = false;
  std::optional<Task> task_;
  std::shared_ptr<RelayTunnel> tunnel_;
};

}  // namespace kelvaron
