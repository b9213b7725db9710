#pragma once

#include <asio/awaitable.hpp>
#include <optional>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/Message.hpp"

namespace kelvaron {

// What a session needs of the gate that stands in front of it: the gate sees every message first
// and passes on only those of an authenticated device.
class AuthGate {
 public:
  enum class Verdict { consumed, proceed };

  virtual ~AuthGate() = default;
  virtual asio::awaitable<void> start() = 0;
  virtual asio::awaitable<Verdict> handle(const Message& message) = 0;
  virtual asio::awaitable<void> connectionEnded() = 0;
  virtual std::optional<UUID> authenticatedDeviceID() const = 0;
  virtual std::optional<Data> authenticatedPublicKey() const = 0;
};

}  // namespace kelvaron
