#include "relay/RelayServerCore.hpp"

#include <algorithm>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/relay/RelayToken.hpp"
#include "kit/relay/RelayWire.hpp"

namespace kelvaron::relay {

namespace {

constexpr std::size_t kKey = RelayLimits::publicKeyBytes, kCookie = RelayLimits::cookieBytes,
                      kSignature = RelayLimits::signatureBytes;

using Bytes = std::span<const std::uint8_t>;

std::string keyOf(Bytes bytes) { return std::string(bytes.begin(), bytes.end()); }

}  // namespace

ServerCore::ServerCore(Data coordinatorKey, std::function<Data(std::size_t)> random,
                       ServerLimits limits)
    : coordinatorKey_(std::move(coordinatorKey)), random_(std::move(random)), limits_(limits) {}

std::vector<Outgoing> ServerCore::receive(const Address& from, Bytes datagram, double now,
                                          std::uint64_t wallSeconds) {
  rotateSecrets(now);
  Out out;
  RelayFrame frame;
  try {
    frame = decodeRelayFrame(datagram);
  } catch (const RelayFrameError&) {
    return out;  // not a frame: nothing to say
  }
  switch (frame.type) {
    case RelayPacketType::challengeRequest:
      challenge(from, frame, out);
      break;
    case RelayPacketType::register_:
      registerHost(from, frame, now, wallSeconds, out);
      break;
    case RelayPacketType::join:
      join(from, frame, now, wallSeconds, out);
      break;
    case RelayPacketType::rebind:
      rebind(from, frame, now, out);
      break;
    case RelayPacketType::data:
    case RelayPacketType::keepalive:
    case RelayPacketType::close:
    case RelayPacketType::deny:
      inSession(from, frame, now, out);
      break;
    default:
      break;  // what only the relay sends
  }
  return out;
}

// ---- Cookies: nothing is kept for whoever has not proved a key ----

void ServerCore::rotateSecrets(double now) {
  if (now - secretSince_ < limits_.secretSeconds) return;
  // After a long quiet both secrets are new: no cookie outlives two periods.
  previousSecret_ = now - secretSince_ < 2 * limits_.secretSeconds ? secret_ : random_(32);
  secret_ = random_(32);
  secretSince_ = now;
}

Data ServerCore::cookie(const Address& from, RelayPurpose purpose, const Data& secret) const {
  const std::uint8_t head[] = {std::uint8_t(purpose)};
  Data port;
  RelayWire::appendBigEndian(port, from.port, 2);
  Data mac = AuthCrypto::hmacSHA256(secret, concat({head, from.ip, port}));
  mac.resize(kCookie);
  return mac;
}

bool ServerCore::cookieHolds(const Address& from, RelayPurpose purpose, Bytes given) const {
  for (const Data* secret : {&secret_, &previousSecret_}) {
    const Data expected = cookie(from, purpose, *secret);
    if (AuthCrypto::constantTimeEqual(given, expected)) return true;
  }
  return false;
}

void ServerCore::challenge(const Address& from, const RelayFrame& frame, Out& out) {
  const auto& p = frame.payload;
  if (p.size() != RelayLimits::handshakePayloadBytes || p[0] < 1 || p[0] > 3) return;
  const auto purpose = RelayPurpose(p[0]);
  send(from, RelayPacketType::challenge, 0, 0,
       challengePayload(purpose, cookie(from, purpose, secret_)), out);
}

// ---- Handshakes ----

void ServerCore::registerHost(const Address& from, const RelayFrame& frame, double now,
                              std::uint64_t wall, Out& out) {
  const Bytes p = frame.payload;
  const std::size_t fixed = kKey + kCookie + 2 + kSignature;
  if (p.size() < fixed ||
      p.size() != fixed + RelayWire::readBigEndian(p.subspan(kKey + kCookie, 2))) {
    return refuse(from, frame, RelayErrorCode::malformed, 0, now, out);
  }
  const Bytes key = p.first(kKey), cookie = p.subspan(kKey, kCookie);
  const Bytes token = p.subspan(fixed - kSignature, p.size() - fixed),
              signature = p.last(kSignature);
  if (!cookieHolds(from, RelayPurpose::register_, cookie)) {
    return refuse(from, frame, RelayErrorCode::badCookie, 0, now, out);
  }
  if (!relaySignatureHolds(key, signature, RelayWire::registerMessage(cookie, token, key))) {
    return refuse(from, frame, RelayErrorCode::badSignature, 0, now, out);
  }
  const auto admitted = RelayToken::verified(token, coordinatorKey_);
  if (!admitted || !std::ranges::equal(admitted->hostPublicKey, key)) {
    return refuse(from, frame, RelayErrorCode::badToken, 0, now, out);
  }
  if (admitted->expiresAt < wall) return refuse(from, frame, RelayErrorCode::expired, 0, now, out);
  const Data hostKey(key.begin(), key.end());
  if (const auto old = sessionOfHost_.find(keyOf(hostKey)); old != sessionOfHost_.end()) {
    // The same registration again (its answer was lost) keeps the session; from elsewhere, a
    // new session, and the old one's clients are told.
    if (sessions_.at(old->second).host == from) {
      sessions_.at(old->second).heard = now;
      return send(from, RelayPacketType::registered, old->second, 0, {}, out);
    }
    endSession(old->second, out);
  }
  if (registrationsFrom_[from.ip] >= limits_.registrationsPerSource ||
      sessions_.size() >= limits_.sessions) {
    if (registrationsFrom_[from.ip] == 0) registrationsFrom_.erase(from.ip);
    return refuse(from, frame, RelayErrorCode::overQuota, 0, now, out);
  }
  // Random, so that a party from before a restart is told its session is unknown rather than
  // that its address is, and joins anew at once.
  std::uint32_t number = 0;
  while (number == 0 || sessions_.contains(number)) {
    number = std::uint32_t(RelayWire::readBigEndian(random_(4)));
  }
  sessions_[number] = Session{hostKey, from, now, {}, {}, 1};
  sessionOfHost_[keyOf(hostKey)] = number;
  sessionOfHkid_[keyOf(RelayWire::hkid(hostKey))] = number;
  ++registrationsFrom_[from.ip];
  claim(from, {number, 0}, out);
  send(from, RelayPacketType::registered, number, 0, {}, out);
}

void ServerCore::join(const Address& from, const RelayFrame& frame, double now, std::uint64_t wall,
                      Out& out) {
  const Bytes p = frame.payload;
  if (p.size() != kCookie + RelayJoinGrant::size + kSignature) {
    return refuse(from, frame, RelayErrorCode::malformed, 0, now, out);
  }
  const Bytes cookie = p.first(kCookie), grantBytes = p.subspan(kCookie, RelayJoinGrant::size),
              signature = p.last(kSignature);
  if (!cookieHolds(from, RelayPurpose::join, cookie)) {
    return refuse(from, frame, RelayErrorCode::badCookie, 0, now, out);
  }
  const auto grant = RelayJoinGrant::parse(grantBytes);
  const auto found = grant ? sessionOfHkid_.find(keyOf(grant->hkid)) : sessionOfHkid_.end();
  if (found == sessionOfHkid_.end()) {
    return refuse(from, frame, grant ? RelayErrorCode::unknownHost : RelayErrorCode::badToken, 0,
                  now, out);
  }
  const std::uint32_t number = found->second;
  Session& session = sessions_.at(number);
  if (!RelayJoinGrant::verify(grantBytes, session.hostKey)) {
    return refuse(from, frame, RelayErrorCode::badToken, 0, now, out);
  }
  if (!relaySignatureHolds(grant->clientPublicKey, signature,
                           RelayWire::joinMessage(cookie, grantBytes))) {
    return refuse(from, frame, RelayErrorCode::badSignature, 0, now, out);
  }
  if (grant->expiresAt < wall) return refuse(from, frame, RelayErrorCode::expired, 0, now, out);
  if (session.denied.contains(keyOf(grant->clientPublicKey))) {
    return refuse(from, frame, RelayErrorCode::denied, 0, now, out);
  }
  for (auto& [id, peer] : session.peers) {
    if (peer.key != grant->clientPublicKey) continue;
    // The same join again (its answer was lost) keeps the peer; from elsewhere, the client takes
    // the place of its earlier self.
    if (peer.address == from) {
      peer.heard = now;
      return send(from, RelayPacketType::joined, number, id, {}, out);
    }
    removePeer(number, session, id, out);
    break;
  }
  if (session.peers.size() >= limits_.peersPerSession) {
    return refuse(from, frame, RelayErrorCode::overQuota, 0, now, out);
  }
  while (session.nextPeer == 0 || session.peers.contains(session.nextPeer)) ++session.nextPeer;
  const std::uint32_t id = session.nextPeer++;
  session.peers[id] = Peer{grant->clientPublicKey, from, now};
  claim(from, {number, id}, out);
  send(from, RelayPacketType::joined, number, id, {}, out);
  send(session.host, RelayPacketType::peerJoined, number, id, {}, out);
}

void ServerCore::rebind(const Address& from, const RelayFrame& frame, double now, Out& out) {
  const Bytes p = frame.payload;
  if (p.size() != kCookie + kSignature)
    return refuse(from, frame, RelayErrorCode::malformed, 0, now, out);
  if (!cookieHolds(from, RelayPurpose::rebind, p.first(kCookie))) {
    return refuse(from, frame, RelayErrorCode::badCookie, 0, now, out);
  }
  const auto session = sessions_.find(frame.session);
  const auto peer = session == sessions_.end() ? std::map<std::uint32_t, Peer>::iterator()
                                               : session->second.peers.find(frame.peer);
  if (session == sessions_.end() || peer == session->second.peers.end()) {
    return refuse(from, frame, RelayErrorCode::unknownSession, frame.session, now, out);
  }
  if (!relaySignatureHolds(peer->second.key, p.last(kSignature),
                           RelayWire::rebindMessage(p.first(kCookie), frame.session, frame.peer))) {
    return refuse(from, frame, RelayErrorCode::badSignature, frame.session, now, out);
  }
  parties_.erase(peer->second.address);
  peer->second.address = from;
  peer->second.heard = now;
  claim(from, {frame.session, frame.peer}, out);
  send(from, RelayPacketType::rebound, frame.session, frame.peer, {}, out);
}

// ---- Sessions ----

void ServerCore::inSession(const Address& from, const RelayFrame& frame, double now, Out& out) {
  const auto party = parties_.find(from);
  if (party == parties_.end() || party->second.session != frame.session) {
    const bool answerable =
        frame.type == RelayPacketType::data || frame.type == RelayPacketType::keepalive;
    if (!answerable) return;
    // A party whose address changed learns to rebind; a stranger that its session is unknown.
    const auto code = sessions_.contains(frame.session) ? RelayErrorCode::addressNotOnRecord
                                                        : RelayErrorCode::unknownSession;
    return refuse(from, frame, code, frame.session, now, out);
  }
  const auto [number, peer] = party->second;
  Session& session = sessions_.at(number);
  if (peer == 0) {
    session.heard = now;
    fromHost(number, session, frame, out);
  } else {
    session.peers.at(peer).heard = now;
    fromPeer(number, peer, session, frame, out);
  }
}

void ServerCore::fromHost(std::uint32_t number, Session& session, const RelayFrame& frame,
                          Out& out) {
  switch (frame.type) {
    case RelayPacketType::data:
      if (const auto peer = session.peers.find(frame.peer); peer != session.peers.end()) {
        send(peer->second.address, RelayPacketType::data, number, frame.peer, frame.payload, out);
      }
      break;
    case RelayPacketType::close:
      endSession(number, out);
      break;
    case RelayPacketType::deny:
      if (frame.payload.size() != kKey) break;
      session.denied.insert(keyOf(frame.payload));
      for (const auto& [id, peer] : session.peers) {
        if (peer.key == frame.payload) {
          send(peer.address, RelayPacketType::close, number, id, {}, out);
          removePeer(number, session, id, out);
          break;
        }
      }
      break;
    default:
      break;  // a keepalive: heard
  }
}

void ServerCore::fromPeer(std::uint32_t number, std::uint32_t peer, Session& session,
                          const RelayFrame& frame, Out& out) {
  if (frame.type == RelayPacketType::data) {
    send(session.host, RelayPacketType::data, number, peer, frame.payload, out);
  } else if (frame.type == RelayPacketType::close) {
    removePeer(number, session, peer, out);
  }
}

void ServerCore::endSession(std::uint32_t number, Out& out) {
  const auto found = sessions_.find(number);
  if (found == sessions_.end()) return;
  Session& session = found->second;
  for (const auto& [id, peer] : session.peers) {
    send(peer.address, RelayPacketType::close, number, id, {}, out);
    parties_.erase(peer.address);
  }
  parties_.erase(session.host);
  if (const auto count = registrationsFrom_.find(session.host.ip);
      count != registrationsFrom_.end() && --count->second == 0) {
    registrationsFrom_.erase(count);
  }
  sessionOfHkid_.erase(keyOf(RelayWire::hkid(session.hostKey)));
  sessionOfHost_.erase(keyOf(session.hostKey));
  sessions_.erase(found);
}

// The host hears that the peer is gone.
void ServerCore::removePeer(std::uint32_t number, Session& session, std::uint32_t peer, Out& out) {
  const auto found = session.peers.find(peer);
  if (found == session.peers.end()) return;
  parties_.erase(found->second.address);
  session.peers.erase(found);
  send(session.host, RelayPacketType::close, number, peer, {}, out);
}

// One address is one party: whoever held it before is gone.
void ServerCore::claim(const Address& address, Party party, Out& out) {
  if (const auto held = parties_.find(address); held != parties_.end()) {
    const auto [number, peer] = held->second;
    if (peer == 0) {
      if (number != party.session) endSession(number, out);
    } else if (const auto session = sessions_.find(number); session != sessions_.end()) {
      if (number != party.session || peer != party.peer) {
        removePeer(number, session->second, peer, out);
      }
    }
  }
  parties_[address] = party;
}

std::vector<Outgoing> ServerCore::expire(double now) {
  rotateSecrets(now);
  Out out;
  std::vector<std::uint32_t> idleHosts;
  for (auto& [number, session] : sessions_) {
    if (now - session.heard > limits_.idleSeconds) {
      idleHosts.push_back(number);
      continue;
    }
    std::vector<std::uint32_t> idlePeers;
    for (const auto& [id, peer] : session.peers) {
      if (now - peer.heard > limits_.idleSeconds) idlePeers.push_back(id);
    }
    for (const std::uint32_t id : idlePeers) removePeer(number, session, id, out);
  }
  for (const std::uint32_t number : idleHosts) endSession(number, out);
  std::erase_if(errorBudget_, [&](const auto& entry) { return now - entry.second.at > 1; });
  return out;
}

void ServerCore::send(const Address& to, RelayPacketType type, std::uint32_t session,
                      std::uint32_t peer, Data payload, Out& out) {
  out.push_back({to, encode({type, session, peer, std::move(payload)})});
}

// Error answers are few for each address, and the addresses remembered for it are bounded: a
// flood from many sources gets silence rather than memory. An answer is never larger than what
// came: a frame without payload gets none.
void ServerCore::refuse(const Address& to, const RelayFrame& request, RelayErrorCode code,
                        std::uint32_t session, double now, Out& out) {
  if (request.payload.empty()) return;
  auto budget = errorBudget_.find(to);
  if (budget == errorBudget_.end()) {
    if (errorBudget_.size() >= limits_.errorSources) return;
    budget = errorBudget_.emplace(to, Budget{limits_.errorsPerSecond, now}).first;
  }
  Budget& b = budget->second;
  b.tokens = std::min(limits_.errorsPerSecond, b.tokens + (now - b.at) * limits_.errorsPerSecond);
  b.at = now;
  if (b.tokens < 1) return;
  b.tokens -= 1;
  send(to, RelayPacketType::error, session, 0, {std::uint8_t(code)}, out);
}

}  // namespace kelvaron::relay
