#pragma once

#include <asio/awaitable.hpp>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

#include "kit/crypto/SecretStore.hpp"
#include "kit/relay/RelayConfig.hpp"
#include "kit/security/ClientHandshake.hpp"
#include "kit/security/Stores.hpp"
#include "kit/transport/Connection.hpp"
#include "kit/wire/Message.hpp"

namespace kelvaron::client {

// This client as hosts know it: the name it gives itself, its identity, and the hosts it paired
// with, kept in $XDG_DATA_HOME/tovu-client/.
struct ClientDevice {
  std::string name = defaultName();
  std::filesystem::path directory = userDataDirectory("tovu-client");
  FileSecretStore identityStore{directory / "identity"};
  PairedHostStore hosts{std::make_shared<FileSecretStore>(directory / "paired-hosts.json")};
  // How each host that has remote access on can be reached through a relay.
  RelayConfigStore relays{std::make_shared<FileSecretStore>(directory / "relay-configs.json")};
  ClientIdentity identity = ClientIdentity::loadOrCreate(identityStore);

  // "tovu-client on <this computer's name>".
  static std::string defaultName();

  // What this device says once a host let it in: who it is, and the pictures it can show.
  msg::hello hello() const;

  // Proves this device to the host on `connection` for `purpose`, showing codes to compare
  // through `onCode`. Throws FlowError (`refusal`, and why when that is known) unless the host
  // let it in; the connection is then closed.
  asio::awaitable<void> signIn(const std::shared_ptr<Connection>& connection,
                               const ClientHandshake::Purpose& purpose,
                               std::chrono::seconds timeout,
                               const std::function<void(const std::string&)>& onCode,
                               std::string_view refusal) const;
};

// The "hosts" command: a line "ID  name" for each paired host.
void listPairedHosts(const ClientDevice& device, std::ostream& out);

}  // namespace kelvaron::client
