#include "client/HostDirectory.hpp"

#include <algorithm>
#include <asio/ip/address.hpp>
#include <charconv>
#include <ostream>
#include <string>
#include <vector>

#include "client/ClientDevice.hpp"
#include "client/Flow.hpp"
#include "kit/transport/AsyncQueue.hpp"
#include "kit/transport/QUICHostBrowser.hpp"

namespace kelvaron::client {

using Clock = std::chrono::steady_clock;

std::optional<QUICConnection::Endpoint> parseEndpoint(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  std::string_view host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  asio::error_code error;
  const auto address = asio::ip::make_address(std::string(host), error);
  const std::string_view portText = text.substr(colon + 1);
  const char* end = portText.data() + portText.size();
  std::uint16_t port = 0;
  const auto [stop, failure] = std::from_chars(portText.data(), end, port);
  if (error || failure != std::errc() || stop != end || port == 0) return std::nullopt;
  return QUICConnection::Endpoint(address, port);
}

HostDirectory HostDirectory::suggesting(const std::optional<std::string>& address) const {
  HostDirectory directory = *this;
  directory.suggested_ = address ? parseEndpoint(*address) : std::nullopt;
  return directory;
}

asio::awaitable<std::shared_ptr<Connection>> HostDirectory::dial(const Filter& wanted,
                                                                 const ServerTrust& trust) const {
  const auto executor = co_await asio::this_coro::executor;
  if (address_) {
    auto connection = co_await QUICConnection::connect(executor, *address_, trust);
    co_return connection;
  }
  // Where the host said it was may be stale (another network, another port): then it is looked
  // for, with the same trust.
  std::string notThere;
  if (suggested_) {
    try {
      auto connection = co_await QUICConnection::connect(executor, *suggested_, trust);
      co_return connection;
    } catch (const QUICError& error) {
      const auto& at = *suggested_;
      notThere = "not at " + at.address().to_string() + " port " + std::to_string(at.port()) +
                 " (" + error.what() + "), and ";
    }
  }
  const auto browser = QUICHostBrowser::start(executor);
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    const auto list = co_await nextWithin(browser->hosts(), std::chrono::seconds(1));
    if (!list) continue;
    const auto found = std::ranges::find_if(*list, wanted);
    if (found == list->end()) continue;
    auto connection = co_await browser->connect(found->id, trust);
    browser->stop();
    co_return connection;
  }
  browser->stop();
  throw FlowError("the host is " + notThere +
                  "not on the local network (is avahi-daemon running? else use --address)");
}

asio::awaitable<void> listNearbyHosts(const ClientDevice& device,
                                      std::chrono::duration<double> duration, std::ostream& out) {
  const auto executor = co_await asio::this_coro::executor;
  const auto browser = QUICHostBrowser::start(executor);
  std::vector<DiscoveredHost> seen;
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(duration);
  while (Clock::now() < deadline) {
    if (auto hosts = co_await nextWithin(browser->hosts(), std::chrono::milliseconds(200))) {
      seen = std::move(*hosts);
    }
  }
  browser->stop();
  for (const DiscoveredHost& host : seen) {
    const bool paired = device.hosts.match(host.hostID, host.name).has_value();
    out << host.name << "  " << (host.hostID ? host.hostID->string() : "-")
        << (paired ? "  paired" : "") << "\n";
  }
  if (seen.empty()) out << "No hosts found.\n";
  out.flush();
}

}  // namespace kelvaron::client
