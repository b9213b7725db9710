#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "kit/async/Task.hpp"
#include "kit/log/Logger.hpp"
#include "kit/security/AuthGate.hpp"
#include "kit/security/HostPairingService.hpp"
#include "kit/transport/Connection.hpp"

namespace kelvaron {

struct AuthTimeouts {
  std::chrono::duration<double> response{10.0};  // from the challenge to the response
  std::chrono::duration<double> pairing{120.0};  // from "not paired" to the end of pairing
  std::chrono::duration<double> confirm{60.0};   // the person's time to answer the prompt
  std::chrono::duration<double> flush{0.2};      // lets a last failure message leave
};

// Stands in front of one connection: runs the host's side of the challenge and of both ways of
// pairing, and lets nothing through to the session until the device is authenticated. Messages
// out of turn are dropped without a word; failures are told only by result codes. A
// serial-executor object.
class HostAuthGate final : public AuthGate, public std::enable_shared_from_this<HostAuthGate> {
 public:
  enum class Phase {
    awaitingResponse,
    processing,
    pairingOnly,
    committed,
    awaitingUser,
    authenticated,
    closed
  };

  static std::shared_ptr<HostAuthGate> make(const Executor& executor,
                                            std::shared_ptr<Connection> connection,
                                            std::shared_ptr<HostPairingService> service,
                                            AuthTimeouts timeouts,
                                            std::function<void(const UUID&)> onAuthenticated,
                                            Sleeper sleep = sleepFor);

  asio::awaitable<void> start() override;
  asio::awaitable<Verdict> handle(const Message& message) override;
  asio::awaitable<void> connectionEnded() override;
  std::optional<UUID> authenticatedDeviceID() const override;
  std::optional<Data> authenticatedPublicKey() const override;
  Phase phase() const;

 private:
  HostAuthGate(const Executor& executor, std::shared_ptr<Connection> connection,
               std::shared_ptr<HostPairingService> service, AuthTimeouts timeouts,
               std::function<void(const UUID&)> onAuthenticated, Sleeper sleep);

  void startHere();
  Verdict handleHere(const Message& message);
  void endHere();
  void armDeadline(std::chrono::duration<double> after);
  static asio::awaitable<void> deadline(std::weak_ptr<HostAuthGate> weak, Sleeper sleep,
                                        std::chrono::duration<double> delay, int generation);
  void expire(int generation);
  // Ends the dialogue with `last`; `why` goes to the host's log, never to the peer.
  void fail(const Message& last, const char* why);
  void onResponse(const msg::authResponse& response);
  void onPairRequest(const msg::pairRequest& request);
  void onReveal(const msg::pairReveal& reveal);
  asio::awaitable<void> decide(const std::string& code);
  void finishPairing();
  void completeAuthentication(const UUID& deviceID);

  Executor strand_;
  std::shared_ptr<Connection> connection_;
  std::shared_ptr<HostPairingService> service_;
  AuthTimeouts timeouts_;
  std::function<void(const UUID&)> onAuthenticated_;
  Sleeper sleep_;

  const UUID tag_;
  std::atomic<Phase> phase_ = Phase::awaitingResponse;  // read by tests from elsewhere
  Data nonce_;
  std::optional<UUID> deviceID_;
  std::optional<Data> publicKey_;
  Data commitment_;
  Data hostNonce_;
  std::string deviceName_;
  std::optional<UUID> attempt_;
  Task deadline_;
  int deadlineGeneration_ = 0;
  Task decision_;
  mutable std::mutex authenticatedLock_;  // the session reads these from its own executor
  std::optional<UUID> authenticatedDeviceID_;
  std::optional<Data> authenticatedPublicKey_;
  Logger log_{"io.dovka.tovu.host", "session"};
};

// A device name as it is stored: trimmed, at most 64 characters, "Unknown device" when empty.
std::string cleanDeviceName(std::string_view name);

}  // namespace kelvaron
