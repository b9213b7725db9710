#include <gtest/gtest.h>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/relay/RelayFrame.hpp"
#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/relay/RelayWire.hpp"
#include "kit/wire/Hex.hpp"

namespace kelvaron {
namespace {

Data hex(std::string_view text) { return hexBytes(text).value(); }

Data datagram(std::uint8_t type, std::size_t payload) {
  Data bytes(RelayLimits::headerBytes + payload, 0xab);
  bytes[0] = type;
  return bytes;
}

TEST(RelayFrame, DecodesEveryTypeWithinItsSizeAndRefusesTheRest) {
  using Kind = RelayFrameError::Kind;
  struct Case {
    Data bytes;
    std::optional<Kind> error;
    std::uint8_t badType = 0;
  };
  const Case cases[] = {
      {datagram(3, 0), std::nullopt},  // the header alone: an empty payload
      {datagram(16, 1491), std::nullopt},     {datagram(3, 1492), Kind::tooLarge},
      {Data(8, 3), Kind::truncated},          {Data{}, Kind::truncated},
      {datagram(2, 4), Kind::unknownType, 2}, {datagram(17, 4), Kind::unknownType, 17},
  };
  for (const Case& c : cases) {
    try {
      const RelayFrame frame = decodeRelayFrame(c.bytes);
      EXPECT_FALSE(c.error) << c.bytes.size();
      EXPECT_EQ(frame.payload.size(), c.bytes.size() - RelayLimits::headerBytes);
      EXPECT_EQ(encode(frame), c.bytes);
    } catch (const RelayFrameError& error) {
      EXPECT_EQ(error.kind(), c.error) << c.bytes.size();
      EXPECT_EQ(error.type(), c.badType);
    }
  }
  const RelayFrame frame{RelayPacketType::joined, 0x01020304, 0x0a0b0c0d, {7}};
  EXPECT_EQ(encode(frame), (Data{8, 1, 2, 3, 4, 10, 11, 12, 13, 7}));
  EXPECT_THROW(encode({RelayPacketType::data, 1, 2, Data(1492)}), RelayFrameError);

  // Only an error frame with a known code has one.
  const std::pair<RelayFrame, std::optional<RelayErrorCode>> errors[] = {
      {{RelayPacketType::error, 0, 0, {}}, std::nullopt},
      {{RelayPacketType::error, 0, 0, {0}}, std::nullopt},
      {{RelayPacketType::error, 0, 0, {12}}, std::nullopt},
      {{RelayPacketType::close, 0, 0, {8}}, std::nullopt},
      {{RelayPacketType::error, 0, 0, {11, 99}}, RelayErrorCode::addressNotOnRecord},
  };
  for (const auto& [errorFrame, code] : errors) EXPECT_EQ(errorCode(errorFrame), code);
}

TEST(RelayWire, SignedMessagesAndPayloadsAreLaidOutByteForByte) {
  const Data cookie(16, 0xc0), key(65, 0x04), credential{1, 2, 3}, signature(64, 0x5e);
  EXPECT_EQ(RelayWire::domain("kelvaron-enroll-v1").size(), 19u);
  EXPECT_EQ(RelayWire::domain("kelvaron-enroll-v1").back(), 0);
  const Data rebind = RelayWire::rebindMessage(cookie, 1, 2);
  EXPECT_EQ(Data(rebind.end() - 8, rebind.end()), (Data{0, 0, 0, 1, 0, 0, 0, 2}));
  const Data ts{0, 0, 0, 0, 0x65, 0x92, 0x00, 0x80};
  EXPECT_EQ(RelayWire::coordinatorMessage(0x65920080, key),
            concat({RelayWire::domain("kelvaron-coordinator-v3"), ts, key}));
  EXPECT_EQ(RelayWire::enrollMessage(0x65920080, key, "ABCD"),
            concat({RelayWire::domain("kelvaron-enroll-v1"), ts, key, Data{'A', 'B', 'C', 'D'}}));
  EXPECT_EQ(RelayWire::timestamp(std::chrono::system_clock::time_point(std::chrono::seconds(-5))),
            0u);

  EXPECT_EQ(challengeRequestPayload(RelayPurpose::rebind), concat({Data{3}, Data(16, 0)}));
  EXPECT_EQ(registerPayload(key, cookie, credential, signature),
            concat({key, cookie, Data{0, 3}, credential, signature}));
}

// A grant made by OpenSSL (its own ECDSA) for a key of its own: ours reads and verifies it.
constexpr const char* kOpenSSLHost =
    "04a2655864d949ab3322461888a4e6c3e2ff9bc79bcf61014d526ea667f036902e3a7b03bc280bc13135edfb21e4"
    "55e588ce8922b8b837f2117de0806b2a08787a";
constexpr const char* kOpenSSLGrant =
    "0188f8a1a5e6cad32f14b774ba80b7b96baa150920f8b07cf84496e6d8f1eec9c90465b89805715139bf149ca9a5"
    "25cf97d3bc4cbd80e732e2f506fa130552d26127391e4db6e05d75c4a2cff7f3e47e0b457ebc82412cb3ec67896d"
    "e43e532c97610000000070dbd88030d9aa88a58cce3c35f1b4920535226ec9b5fc49cb93bbedb861bd038c8e6651"
    "53e9de64734e944e549cfea8f6f486d628fb73669ec3ed3791400841cf687522";

TEST(RelayJoinGrant, AHostsGrantVerifiesUnderItsKeyAloneAndWholeAlone) {
  const Data openSSLHost = hex(kOpenSSLHost), openSSLGrant = hex(kOpenSSLGrant);
  EXPECT_TRUE(RelayJoinGrant::verify(openSSLGrant, openSSLHost));
  const auto parsed = RelayJoinGrant::parse(openSSLGrant);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->hkid, hex("88f8a1a5e6cad32f14b774ba80b7b96baa150920f8b07cf84496e6d8f1eec9c9"));
  EXPECT_EQ(RelayWire::hkid(openSSLHost), parsed->hkid);
  EXPECT_EQ(parsed->expiresAt, 1893456000u);  // 2030-01-01

  const P256RelaySigner host(P256PrivateKey::generate()), sameKey = host;
  const P256RelaySigner other(P256PrivateKey::generate());
  const Data client = P256PrivateKey::generate().publicKey();
  const auto now = std::chrono::system_clock::time_point(std::chrono::seconds(1'700'000'000));
  const Data grant = RelayJoinGrant::issue(client, host, RelayJoinGrant::defaultLifetime, now);
  ASSERT_EQ(grant.size(), RelayJoinGrant::size);
  EXPECT_TRUE(RelayJoinGrant::verify(grant, host.publicKeyX963()));
  EXPECT_EQ(RelayJoinGrant::parse(grant)->clientPublicKey, client);
  EXPECT_EQ(RelayJoinGrant::parse(grant)->expiryDate(), now + RelayJoinGrant::defaultLifetime);
  EXPECT_FALSE(RelayJoinGrant::verify(grant, other.publicKeyX963()));
  // Signed by this host, but naming another: its hkid is not this host's.
  const RelayJoinGrant naming{RelayWire::hkid(other.publicKeyX963()), client, 1};
  EXPECT_FALSE(RelayJoinGrant::verify(naming.signedBy(host), host.publicKeyX963()));
  EXPECT_FALSE(RelayJoinGrant::verify(openSSLGrant, host.publicKeyX963()));
  for (std::size_t at = 0; at < RelayJoinGrant::bodySize; ++at) {
    Data altered = grant;
    altered[at] ^= 0x01;
    EXPECT_FALSE(RelayJoinGrant::verify(altered, host.publicKeyX963())) << at;
  }
  Data version2 = grant;
  version2[0] = 2;
  for (const Data& bad :
       {Data(grant.begin(), grant.end() - 1), concat({grant, Data{0}}), version2}) {
    EXPECT_FALSE(RelayJoinGrant::parse(bad));
  }

  // Two signers of one key: each signature differs, and each verifies.
  const Data message = RelayWire::joinMessage(Data(16, 1), grant);
  const Data first = host.sign(message), second = sameKey.sign(message);
  EXPECT_NE(first, second);
  for (const Data& signature : {first, second}) {
    EXPECT_TRUE(verifyDigest(host.publicKeyX963(), signature, AuthCrypto::sha256(message)));
  }
}

}  // namespace
}  // namespace kelvaron
