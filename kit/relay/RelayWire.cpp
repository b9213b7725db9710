#include "kit/relay/RelayWire.hpp"

#include "kit/crypto/AuthCrypto.hpp"

namespace kelvaron::RelayWire {

namespace {

Data labelled(std::string_view label, std::initializer_list<ByteView> parts) {
  Data out = domain(label);
  for (const ByteView part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

// The proofs sent to the coordinator: the time, then the key.
Data timedMessage(std::string_view label, std::uint64_t ts, ByteView publicKey) {
  Data out = domain(label);
  appendBigEndian(out, ts, 8);
  out.insert(out.end(), publicKey.begin(), publicKey.end());
  return out;
}

}  // namespace

void appendBigEndian(Data& out, std::uint64_t value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
    out.push_back(std::uint8_t(value >> shift));
  }
}

std::uint64_t readBigEndian(ByteView bytes) {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : bytes) value = value << 8 | byte;
  return value;
}

Data domain(std::string_view label) {
  Data out(label.begin(), label.end());
  out.push_back(0);
  return out;
}

Data registerMessage(ByteView cookie, ByteView credential, ByteView publicKey) {
  return labelled("kelvaron-relay-register-v2", {cookie, credential, publicKey});
}

Data joinMessage(ByteView cookie, ByteView credential) {
  return labelled("kelvaron-relay-join-v2", {cookie, credential});
}

Data rebindMessage(ByteView cookie, std::uint32_t session, std::uint32_t peer) {
  Data out = labelled("kelvaron-relay-rebind-v2", {cookie});
  appendBigEndian(out, session, 4);
  appendBigEndian(out, peer, 4);
  return out;
}

Data grantMessage(ByteView body) { return labelled("kelvaron-relay-grant-v1", {body}); }

Data tokenMessage(ByteView body) { return labelled("kelvaron-relay-token-v1", {body}); }

Data coordinatorMessage(std::uint64_t ts, ByteView publicKey) {
  return timedMessage("kelvaron-coordinator-v3", ts, publicKey);
}

Data enrollMessage(std::uint64_t ts, ByteView publicKey, std::string_view invite) {
  Data out = timedMessage("kelvaron-enroll-v1", ts, publicKey);
  out.insert(out.end(), invite.begin(), invite.end());
  return out;
}

Data hkid(ByteView publicKey) { return AuthCrypto::sha256(publicKey); }

std::uint64_t timestamp(std::chrono::system_clock::time_point time) {
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
  return seconds < 0 ? 0 : std::uint64_t(seconds);
}

}  // namespace kelvaron::RelayWire
