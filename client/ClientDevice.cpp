#include "client/ClientDevice.hpp"

#include <unistd.h>

#include <ostream>

#include "client/Flow.hpp"

namespace kelvaron::client {

std::string ClientDevice::defaultName() {
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  return std::string("tovu-client on ") + host;
}

msg::hello ClientDevice::hello() const {
  const ClientCapabilities capabilities{
      {CodecProfile::hevcMain, CodecProfile::hevcMain444}, 1920, 1080, 2, "tovu-client", false};
  return {kProtocolVersion, identity.deviceID, name, capabilities};
}

asio::awaitable<void> ClientDevice::signIn(const std::shared_ptr<Connection>& connection,
                                           const ClientHandshake::Purpose& purpose,
                                           std::chrono::seconds timeout,
                                           const std::function<void(const std::string&)>& onCode,
                                           std::string_view refusal) const {
  // Once connected, the certificate the host showed is the one it was checked against.
  const std::function<std::optional<Data>()> fingerprint = [connection] {
    return connection->peerCertificateFingerprint();
  };
  const auto event = co_await ClientHandshake::run(connection, identity, purpose, name, fingerprint,
                                                   timeout, onCode);
  if (event.kind == ClientHandshake::Event::Kind::authenticated) co_return;
  connection->close();
  std::string why(refusal);
  if (!event.text.empty()) why += ": " + event.text;
  throw FlowError(why);
}

void listPairedHosts(const ClientDevice& device, std::ostream& out) {
  for (const PairedHost& host : device.hosts.all()) {
    out << host.hostID.string() << "  " << host.name << "\n";
  }
  out.flush();
}

}  // namespace kelvaron::client
