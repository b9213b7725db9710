#pragma once

// tovu-relay as a process, and a party that speaks to a relay by hand: what a relay test or a
// relay benchmark needs beside the tunnels.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/ip/address.hpp>
#include <fstream>
#include <optional>
#include <thread>

#include "kit/relay/RelayFrame.hpp"
#include "kit/relay/RelaySigner.hpp"
#include "kit/wire/Hex.hpp"
#include "tests/support/ChildProcess.hpp"

namespace kelvaron::test {

// `program` (tovu-relay) on `port` (0: any free one), inside the network namespace `netns` when
// it is not empty, with a development coordinator key in `folder`. The port stays 0 when the
// relay did not start.
class RelayProcess {
 public:
  RelayProcess(const std::string& program, const std::filesystem::path& folder,
               std::uint16_t port = 0, const std::string& netns = {})
      : program_(program), key_(folder / "coordinator.key") {
    std::vector<std::string> arguments{program, "--port", std::to_string(port), "--dev-key",
                                       key_.string()};
    if (!netns.empty()) arguments.insert(arguments.begin(), {"ip", "netns", "exec", netns});
    const auto log = folder / "relay.log";
    process_.emplace(arguments, log);
    port_ = announcedPort(*process_, log);
  }

  std::uint16_t port() const { return port_; }
  pid_t pid() const { return process_->pid(); }

  // A token of the relay's coordinator for the host whose public key is `hostKey`.
  Data token(const Data& hostKey) const {
    const auto minted =
        runCommand({program_, "--dev-key", key_.string(), "--dev-token", hexText(hostKey)});
    return hexBytes(minted.output.substr(0, minted.output.find('\n'))).value_or(Data{});
  }

 private:
  std::string program_;
  std::filesystem::path key_;
  std::optional<ChildProcess> process_;
  std::uint16_t port_ = 0;
};

// A party on a plain UDP socket that does the relay's handshakes by hand and keeps the datagrams
// it sent, so that a test can replay them from elsewhere and a benchmark can measure the relay
// without a tunnel's own work.
class RawRelayParty {
 public:
  // Throws when `address` is not an IP address.
  RawRelayParty(const std::string& address, std::uint16_t port) {
    const auto ip =
        asio::ip::make_address_v6(asio::ip::v4_mapped, asio::ip::make_address_v4(address));
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(port);
    const auto bytes = ip.to_bytes();
    std::copy(bytes.begin(), bytes.end(), to.sin6_addr.s6_addr);
    socket_ = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ::connect(socket_, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }
  ~RawRelayParty() { ::close(socket_); }
  RawRelayParty(const RawRelayParty&) = delete;
  RawRelayParty& operator=(const RawRelayParty&) = delete;

  int socket() const { return socket_; }
  void send(const Data& datagram) const { ::send(socket_, datagram.data(), datagram.size(), 0); }
  void send(const RelayFrame& frame) const { send(encode(frame)); }

  // The next datagram within `wait`, whatever it holds.
  std::optional<Data> receiveBytes(std::chrono::milliseconds wait) const {
    pollfd ready{socket_, POLLIN, 0};
    if (::poll(&ready, 1, int(wait.count())) != 1) return std::nullopt;
    Data datagram(2048);
    const auto count = ::recv(socket_, datagram.data(), datagram.size(), 0);
    if (count < 0) return std::nullopt;
    datagram.resize(std::size_t(count));
    return datagram;
  }
  std::optional<RelayFrame> receive(std::chrono::milliseconds wait) const {
    const auto datagram = receiveBytes(wait);
    if (!datagram) return std::nullopt;
    return decodeRelayFrame(*datagram);
  }

  // A registration (`credential` is the coordinator's token) or a join (the host's grant),
  // signed by `signer`: the relay's answer, and the proof that was sent in `proof`.
  std::optional<RelayFrame> handshake(RelayPurpose purpose, const RelaySigner& signer,
                                      const Data& credential) {
    send({RelayPacketType::challengeRequest, 0, 0, challengeRequestPayload(purpose)});
    const auto challenge = receive(std::chrono::seconds(2));
    const auto cookie = challenge ? challengeCookie(*challenge, purpose) : std::nullopt;
    if (!cookie) return challenge;
    proof = encode(purpose == RelayPurpose::join ? joinProof(signer, *cookie, credential)
                                                 : registerProof(signer, *cookie, credential));
    send(proof);
    return receive(std::chrono::seconds(2));
  }

  Data proof;

 private:
  int socket_ = -1;
};

}  // namespace kelvaron::test
