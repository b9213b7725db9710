// tovu-relay: a UDP relay of our own, where hosts and clients that cannot reach each other meet.
// Hosts register with a token of the coordinator, clients join a host's session with the grant
// the host gave them, and the relay forwards their datagrams. Nothing is kept on disk; logs go to
// the journal. See docs/relay-protocol.md.

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>

#include "apps/common/CommandLine.hpp"
#include "kit/crypto/P256.hpp"
#include "kit/crypto/SecretStore.hpp"
#include "kit/relay/RelaySigner.hpp"
#include "kit/relay/RelayToken.hpp"
#include "kit/relay/RelayWire.hpp"
#include "kit/wire/Hex.hpp"
#include "relay/RelayServer.hpp"

namespace {

using namespace kelvaron;

constexpr const char* kUsage = R"(Usage:
  tovu-relay [--port N] --coordinator-key HEX
      relay on UDP port N (default 4433) for hosts admitted by the coordinator whose public key
      (65 bytes of X9.63, in hexadecimal) is HEX
  tovu-relay [--port N] --dev-key FILE
      the same, with a coordinator key of the relay's own for trying it out: FILE holds its
      private key (made when missing)
  tovu-relay --dev-key FILE --dev-token HOSTKEY [--hours H]
      print a token admitting the host whose public key is HOSTKEY (hexadecimal), signed by the
      key in FILE, valid for H hours (default 24), and leave
)";

struct Arguments {
  std::uint16_t port = 4433;
  std::optional<Data> coordinatorKey;
  std::optional<std::filesystem::path> devKey;
  std::optional<Data> devToken;
  double hours = 24;
};

int serve(std::uint16_t port, Data coordinatorKey) {
  asio::io_context io;
  const auto server = relay::RelayServer::make(io.get_executor(), port, std::move(coordinatorKey));
  server->start();
  asio::signal_set signals(io, SIGINT, SIGTERM);
  signals.async_wait([&](const std::error_code&, int) { server->stop(); });
  std::cout << "tovu-relay: listening on UDP port " << server->port() << std::endl;
  io.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  apps::CommandLine line("tovu-relay", kUsage);
  line.option("--port",
              [&](const std::string& text) {
                const auto port = apps::parseNumber<std::uint16_t>(text, 0, 65535);
                if (!port) throw apps::UsageError("--port wants a port number");
                arguments.port = *port;
              })
      .option("--coordinator-key",
              [&](const std::string& text) {
                arguments.coordinatorKey = hexBytes(text);
                if (!arguments.coordinatorKey || !isValidPublicKey(*arguments.coordinatorKey)) {
                  throw apps::UsageError("--coordinator-key wants a P-256 public key in hex");
                }
              })
      .option("--dev-key", [&](const std::string& file) { arguments.devKey = file; })
      .option("--dev-token",
              [&](const std::string& text) {
                arguments.devToken = hexBytes(text);
                if (!arguments.devToken || !isValidPublicKey(*arguments.devToken)) {
                  throw apps::UsageError("--dev-token wants a host's P-256 public key in hex");
                }
              })
      .option("--hours", [&](const std::string& text) {
        const auto hours = apps::parseNumber(text, 0.0, 24.0 * 365);
        if (!hours) throw apps::UsageError("--hours wants a number of hours");
        arguments.hours = *hours;
      });
  if (const auto status = line.parse(argc, argv)) return *status;
  try {
    if (arguments.devToken) {
      if (!arguments.devKey) return line.fail("--dev-token needs --dev-key");
      const P256RelaySigner coordinator(keyInFile(*arguments.devKey));
      const auto until = std::chrono::system_clock::now() +
                         std::chrono::duration_cast<std::chrono::seconds>(
                             std::chrono::duration<double, std::ratio<3600>>(arguments.hours));
      const RelayToken token{*arguments.devToken, RelayWire::timestamp(until)};
      std::cout << hexText(token.signedBy(coordinator)) << std::endl;
      return 0;
    }
    if (arguments.devKey) arguments.coordinatorKey = keyInFile(*arguments.devKey).publicKey();
    if (!arguments.coordinatorKey) return line.fail("no coordinator key (see --help)");
    return serve(arguments.port, *arguments.coordinatorKey);
  } catch (const std::exception& failure) {
    std::cerr << "tovu-relay: " << failure.what() << std::endl;
    return 1;
  }
}
