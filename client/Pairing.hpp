#pragma once

#include <asio/awaitable.hpp>
#include <iosfwd>
#include <string>

#include "client/ClientDevice.hpp"
#include "client/HostDirectory.hpp"
#include "kit/security/PairingURL.hpp"

namespace kelvaron::client {

// Pairing by the link a host printed: the host it names (at the address it carries, unless the
// directory has one, else on the local network), trusted only with the certificate it names, lets
// this device in for the link's token. The host is then kept among the paired ones,
// and `out` says so. Throws FlowError when the host does not pair.
asio::awaitable<void> pairByLink(ClientDevice& device, const HostDirectory& directory,
                                 const PairingURL& link, std::ostream& out);

// Pairing by code comparison with the host `host` names (its ID or name; any one at a given
// address): the first contact trusts the certificate it is shown, `out` shows the six digits the
// person compares with the host's, and the host's ID and name come with its answer to hello.
asio::awaitable<void> pairByComparison(ClientDevice& device, const HostDirectory& directory,
                                       const std::string& host, std::ostream& out);

}  // namespace kelvaron::client
