#pragma once

#include <asio/awaitable.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "kit/security/Stores.hpp"
#include "kit/transport/Connection.hpp"

namespace kelvaron {

// The client's side of the dialogue the host's gate runs: sign in as a paired device, or pair a
// new one by token or by comparing six digits.
class ClientHandshake {
 public:
  struct Purpose {
    enum class Kind { authenticate, pairWithToken, pairByComparison };
    Kind kind = Kind::authenticate;
    Data token;  // for pairWithToken: the 16 bytes of the pairing URL

    static Purpose authenticate() { return {Kind::authenticate, {}}; }
    static Purpose pairWithToken(Data token) { return {Kind::pairWithToken, std::move(token)}; }
    static Purpose pairByComparison() { return {Kind::pairByComparison, {}}; }
  };

  struct Event {
    // `showCode` is the only event that is not final.
    enum class Kind { showCode, pairingFailed, failed, authenticated, notPaired, denied };
    Kind kind;
    std::string text;  // the code of showCode, the reason of failed
    PairResult pairResult = PairResult::failed;

    static Event showCode(std::string code) { return {Kind::showCode, std::move(code)}; }
    static Event pairingFailed(PairResult r) { return {Kind::pairingFailed, {}, r}; }
    static Event failed(std::string reason) { return {Kind::failed, std::move(reason)}; }
    static Event of(Kind kind) { return {kind, {}}; }
    friend bool operator==(const Event&, const Event&) = default;
  };

  ClientHandshake(std::shared_ptr<Connection> connection, const ClientIdentity& identity,
                  Purpose purpose, std::string deviceName,
                  std::function<std::optional<Data>()> hostFingerprint,
                  std::function<void(const Event&)> onEvent);

  // True when the message belonged to the handshake.
  bool handle(const Message& message);

  // Drives a whole handshake over `connection` and yields its final event; codes to show go to
  // `onCode`. The connection's messages may be read by the caller only after it returns.
  static asio::awaitable<Event> run(std::shared_ptr<Connection> connection,
                                    const ClientIdentity& identity, Purpose purpose,
                                    std::string deviceName,
                                    std::function<std::optional<Data>()> hostFingerprint,
                                    std::chrono::duration<double> timeout,
                                    std::function<void(const std::string&)> onCode);

 private:
  // One step each of the dialogue, by what the host said.
  void answerChallenge(const msg::authChallenge& challenge);
  void onAuthResult(const msg::authResult& result);
  void startPairing();
  void revealAndShowCode(const msg::pairNonce& nonce);
  Data fingerprintUsed() const;
  void finish(const Event& event);
  void send(const Message& message) { connection_->send(message); }

  std::shared_ptr<Connection> connection_;
  const ClientIdentity identity_;
  Purpose purpose_;
  std::string deviceName_;
  std::function<std::optional<Data>()> hostFingerprint_;
  std::function<void(const Event&)> onEvent_;

  mutable std::mutex lock_;
  const Data clientNonce_;
  Data fingerprintUsed_;
  bool finished_ = false;
};

}  // namespace kelvaron
