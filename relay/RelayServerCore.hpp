#pragma once

// The relay's logic, without sockets or clocks: a datagram comes in from an address at a time,
// datagrams go out to addresses. Hosts register with the coordinator's token, clients join a
// host's session with its grant, and the relay forwards `data` between a session's parties, by
// their addresses alone. Handshakes keep nothing until a key is proved (stateless cookies); every
// table is bounded. See docs/relay-protocol.md.

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kit/relay/RelayFrame.hpp"

namespace kelvaron::relay {

// An IPv6 address (IPv4 mapped) and a port.
struct Address {
  std::array<std::uint8_t, 16> ip{};
  std::uint16_t port = 0;
  auto operator<=>(const Address&) const = default;
};

struct Outgoing {
  Address to;
  Data datagram;
  friend bool operator==(const Outgoing&, const Outgoing&) = default;
};

struct ServerLimits {
  std::size_t registrationsPerSource = 4;  // hosts behind one IP address
  std::size_t sessions = 10'000;
  std::size_t peersPerSession = 8;
  double idleSeconds = 60;          // four keepalives missed
  double secretSeconds = 60;        // how long a cookie secret serves, and its successor after it
  double errorsPerSecond = 4;       // error answers to one address
  std::size_t errorSources = 4096;  // addresses the error limit remembers
};

class ServerCore {
 public:
  // `random(n)`: n random bytes, for the cookie secrets and session numbers. `coordinatorKey`: the
  // public key whose tokens admit hosts.
  ServerCore(Data coordinatorKey, std::function<Data(std::size_t)> random,
             ServerLimits limits = {});

  // `now`: seconds on a monotonic clock; `wallSeconds`: seconds since 1970, for expiries.
  std::vector<Outgoing> receive(const Address& from, std::span<const std::uint8_t> datagram,
                                double now, std::uint64_t wallSeconds);
  // Drops the parties not heard for the idle time, and tells the others.
  std::vector<Outgoing> expire(double now);

  std::size_t sessionCount() const { return sessions_.size(); }
  std::size_t partyCount() const { return parties_.size(); }
  std::size_t errorSourceCount() const { return errorBudget_.size(); }

 private:
  struct Peer {
    Data key;
    Address address;
    double heard = 0;
  };
  struct Session {
    Data hostKey;
    Address host;
    double heard = 0;
    std::set<std::string> denied;  // client keys, as byte strings
    std::map<std::uint32_t, Peer> peers;
    std::uint32_t nextPeer = 1;
  };
  struct Party {  // who an address is
    std::uint32_t session = 0;
    std::uint32_t peer = 0;  // 0: the host
  };
  struct Budget {
    double tokens = 0, at = 0;
  };
  using Out = std::vector<Outgoing>;

  void rotateSecrets(double now);
  Data cookie(const Address& from, RelayPurpose purpose, const Data& secret) const;
  bool cookieHolds(const Address& from, RelayPurpose purpose,
                   std::span<const std::uint8_t> cookie) const;
  void challenge(const Address& from, const RelayFrame& frame, Out& out);
  void registerHost(const Address& from, const RelayFrame& frame, double now, std::uint64_t wall,
                    Out& out);
  void join(const Address& from, const RelayFrame& frame, double now, std::uint64_t wall, Out& out);
  void rebind(const Address& from, const RelayFrame& frame, double now, Out& out);
  void inSession(const Address& from, const RelayFrame& frame, double now, Out& out);
  void fromHost(std::uint32_t number, Session& session, const RelayFrame& frame, Out& out);
  void fromPeer(std::uint32_t number, std::uint32_t peer, Session& session, const RelayFrame& frame,
                Out& out);
  void endSession(std::uint32_t number, Out& out);
  void removePeer(std::uint32_t number, Session& session, std::uint32_t peer, Out& out);
  void claim(const Address& address, Party party, Out& out);
  void send(const Address& to, RelayPacketType type, std::uint32_t session, std::uint32_t peer,
            Data payload, Out& out);
  void refuse(const Address& to, const RelayFrame& request, RelayErrorCode code,
              std::uint32_t session, double now, Out& out);

  const Data coordinatorKey_;
  const std::function<Data(std::size_t)> random_;
  const ServerLimits limits_;
  Data secret_, previousSecret_;
  double secretSince_ = -1e18;
  std::map<std::uint32_t, Session> sessions_;
  // By the host's key and by its hash; byte strings as keys (GCC 12 warns falsely on ordering
  // vectors of bytes).
  std::map<std::string, std::uint32_t> sessionOfHost_;
  std::map<std::string, std::uint32_t> sessionOfHkid_;
  std::map<Address, Party> parties_;
  std::map<std::array<std::uint8_t, 16>, std::size_t> registrationsFrom_;
  std::map<Address, Budget> errorBudget_;
};

}  // namespace kelvaron::relay
