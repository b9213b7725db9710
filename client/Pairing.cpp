#include "client/Pairing.hpp"

#include <chrono>
#include <functional>
#include <optional>
#include <ostream>

#include "client/Flow.hpp"
#include "kit/transport/AsyncQueue.hpp"

namespace kelvaron::client {
namespace {

void keep(ClientDevice& device, const PairedHost& host, std::ostream& out) {
  device.hosts.save(host);
  out << "Paired with " << host.name << " (" << host.hostID.string() << ")" << std::endl;
}

// The host's answer to hello, which names it; nothing when none comes.
asio::awaitable<std::optional<msg::helloAck>> helloAck(Connection& connection) {
  while (const auto message = co_await nextWithin(connection.messages(), std::chrono::seconds(5))) {
    if (const auto* ack = std::get_if<msg::helloAck>(&*message)) co_return *ack;
  }
  co_return std::nullopt;
}

}  // namespace

asio::awaitable<void> pairByLink(ClientDevice& device, const HostDirectory& directory,
                                 const PairingURL& link, std::ostream& out) {
  const UUID hostID = link.hostID;
  const HostDirectory::Filter wanted = [hostID](const DiscoveredHost& h) {
    return h.hostID == hostID;
  };
  const ServerTrust trust = ServerTrust::pinned(link.fingerprint);
  const HostDirectory linked = directory.suggesting(link.address);
  std::shared_ptr<Connection> connection;
  try {
    connection = co_await linked.dial(wanted, trust);
  } catch (const QUICError& error) {
    // Nothing was paired yet, so nothing changed: the host that answered is another one.
    if (error.kind() != QUICError::Kind::pinMismatch) throw;
    throw FlowError(
        "the host that answered is not the one of this link (its certificate does not match); "
        "check the address, or ask the host for a fresh link");
  }
  const auto purpose = ClientHandshake::Purpose::pairWithToken(link.token);
  const std::function<void(const std::string&)> noCode;
  co_await device.signIn(connection, purpose, std::chrono::seconds(30), noCode, "pairing failed");
  connection->close();
  keep(device, {link.hostID, link.hostName, link.fingerprint, WallClock::now(), {}}, out);
}

asio::awaitable<void> pairByComparison(ClientDevice& device, const HostDirectory& directory,
                                       const std::string& host, std::ostream& out) {
  const auto id = UUID::parse(host);
  const HostDirectory::Filter wanted = [id, host](const DiscoveredHost& h) {
    return (id && h.hostID == id) || h.name == host;
  };
  const ServerTrust trust = ServerTrust::unpinned();
  const auto connection = co_await directory.dial(wanted, trust);
  const std::function<void(const std::string&)> showCode = [&out](const std::string& code) {
    out << "Code: " << code << " - check that the host shows the same" << std::endl;
  };
  const auto purpose = ClientHandshake::Purpose::pairByComparison();
  co_await device.signIn(connection, purpose, std::chrono::seconds(120), showCode,
                         "pairing failed");
  connection->send(device.hello());
  const auto ack = co_await helloAck(*connection);
  const auto fingerprint = connection->peerCertificateFingerprint();
  connection->close();
  if (!ack || !fingerprint) throw FlowError("paired, but the host did not say who it is");
  keep(device, {ack->hostID, ack->hostName, *fingerprint, WallClock::now(), {}}, out);
}

}  // namespace kelvaron::client
