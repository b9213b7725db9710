#pragma once

#include <asio/awaitable.hpp>
#include <chrono>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kit/transport/Connection.hpp"
#include "kit/transport/QUICConnection.hpp"

namespace kelvaron::client {

struct ClientDevice;

// "HOST:PORT" as an endpoint: an IP address (IPv6 in brackets, "[::1]:4433") and a port from 1
// to 65535. Nothing for anything else; names are not looked up.
std::optional<QUICConnection::Endpoint> parseEndpoint(std::string_view text);

// Where this client finds hosts: at the address the person gave, or else on the local network
// (DNS-SD, through avahi-daemon), after the address the host itself named, if any.
class HostDirectory {
 public:
  using Filter = std::function<bool(const DiscoveredHost&)>;

  explicit HostDirectory(std::optional<QUICConnection::Endpoint> address = std::nullopt)
      : address_(address) {}

  // This directory, trying `address` ("HOST:PORT", as a pairing link names it) first when the
  // person gave none. An address that does not parse is no address.
  HostDirectory suggesting(const std::optional<std::string>& address) const;

  // A connection to the host at the address, or else to the first host on the local network that
  // `wanted` accepts within ten seconds, its certificate checked by `trust`. Throws FlowError
  // when there is no such host, QUICError when the connection fails.
  asio::awaitable<std::shared_ptr<Connection>> dial(const Filter& wanted,
                                                    const ServerTrust& trust) const;

 private:
  std::optional<QUICConnection::Endpoint> address_;
  std::optional<QUICConnection::Endpoint> suggested_;
};

// The "list" command: the hosts seen on the local network during `duration`, a line each, with
// the paired ones marked.
asio::awaitable<void> listNearbyHosts(const ClientDevice& device,
                                      std::chrono::duration<double> duration, std::ostream& out);

}  // namespace kelvaron::client
