#include "kit/crypto/AuthCrypto.hpp"

#include <gtest/gtest.h>

#include "kit/wire/Hex.hpp"

namespace kelvaron {
namespace {

using namespace AuthCrypto;

Data hex(std::string_view text) { return hexBytes(text).value(); }
Data bytes(std::string_view text) { return Data(text.begin(), text.end()); }

// One vector each: the library computes them, these check that the right ones are asked for.
TEST(AuthCrypto, HashesAndP256MatchThePublishedVectors) {
  // RFC 4231, test case 2; SHA-256 itself is pinned by the signature below.
  EXPECT_EQ(hmacSHA256(bytes("Jefe"), bytes("what do ya want for nothing?")),
            hex("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"));
  // RFC 6979, A.2.5: the key pair, and the signature of "sample" with SHA-256.
  const Data scalar = hex("c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721");
  const Data publicKey =
      hex("0460fed4ba255a9d31c961eb74c6356d68c049b8923b61fa6ce669622e60f29fb6"
          "7903fe1008b8bc99a41ae9e95628bc64f2f1b20c2d7e9f5177a3c294d4462299");
  const auto key = P256PrivateKey::fromRaw(scalar);
  ASSERT_TRUE(key);
  EXPECT_EQ(key->publicKey(), publicKey);
  EXPECT_EQ(key->rawRepresentation(), scalar);
  const Data signature =
      hex("efd48b2aacb6a8fd1140dd9cd45e81d69d2c877b56aaf991c34d0ea84eaf3716"
          "f7cb1c942d657c41d436c7a1b6e29f65f3e900dbb9aff4064dc4ab2f843acda8");
  const Data digest = sha256(bytes("sample"));
  EXPECT_TRUE(verifyDigest(publicKey, signature, digest));
  EXPECT_FALSE(verifyDigest(publicKey, signature, sha256(bytes("test"))));

  // Malformed input is simply not valid.
  EXPECT_FALSE(verifyDigest(publicKey, ByteView(signature).first(63), digest));
  EXPECT_FALSE(verifyDigest(publicKey, concat({signature, Data{0}}), digest));
  Data offCurve = publicKey;
  offCurve[64] ^= 1;
  EXPECT_FALSE(isValidPublicKey(offCurve));
  EXPECT_FALSE(verifyDigest(offCurve, signature, digest));
  EXPECT_FALSE(isValidPublicKey(ByteView(publicKey).first(64)));
  // Zero, above the group order, one byte short.
  for (const Data& raw : {Data(32, 0), Data(32, 0xff), Data(31, 1)}) {
    EXPECT_FALSE(P256PrivateKey::fromRaw(raw));
  }
}

TEST(AuthCrypto, ChallengesAndPairingProofsBindWhatTheyMust) {
  const auto device = P256PrivateKey::generate();
  const Data nonce(32, 4), fingerprint(32, 2), exporter(32, 7);
  const UUID id{{1, 2, 3}};
  for (const auto& session : {std::optional<Data>(), std::optional<Data>(exporter)}) {
    const Data signature = signChallenge(nonce, fingerprint, id, session, device);
    EXPECT_EQ(signature.size(), 64u);
    EXPECT_TRUE(verifyChallenge(signature, device.publicKey(), nonce, fingerprint, id, session));
    EXPECT_FALSE(
        verifyChallenge(signature, device.publicKey(), nonce, fingerprint, UUID{{9}}, session));
  }
  // The exporter binds the TLS session: present or absent, the transcripts differ, and a
  // signature made in one session fails in another.
  EXPECT_NE(authTranscript(nonce, fingerprint, id, std::nullopt),
            authTranscript(nonce, fingerprint, id, Data{}));
  EXPECT_FALSE(verifyChallenge(signChallenge(nonce, fingerprint, id, exporter, device),
                               device.publicKey(), nonce, fingerprint, id, Data(32, 8)));
  EXPECT_EQ(
      authTranscript(nonce, fingerprint, id, exporter),
      sha256(concat({bytes("kelvaron-auth-v2-tls"), nonce, fingerprint, id.bytes, exporter})));

  // Whole values only, compared without an early end.
  Data flipped = nonce;
  flipped[31] ^= 1;
  EXPECT_TRUE(constantTimeEqual(nonce, Data(nonce)) && constantTimeEqual(Data{}, Data{}));
  EXPECT_FALSE(constantTimeEqual(nonce, flipped) ||
               constantTimeEqual(nonce, ByteView(nonce).first(31)));
  EXPECT_NE(randomBytes(16), randomBytes(16));

  // Pairing: the proof and the comparison code bind the host, the device key and both nonces.
  const Data token(16, 1), publicKey(65, 3), clientNonce(32, 5);
  EXPECT_EQ(
      pairingProof(token, fingerprint, publicKey, id),
      hmacSHA256(token, concat({bytes("kelvaron-pair-v1"), fingerprint, publicKey, id.bytes})));
  EXPECT_EQ(commitment(clientNonce), sha256(clientNonce));
  const std::string code = comparisonCode(fingerprint, publicKey, nonce, clientNonce);
  EXPECT_EQ(code.size(), 6u);
  EXPECT_NE(code, comparisonCode(fingerprint, publicKey, clientNonce, nonce));
  // Small values keep their leading zeros: search a nonce whose code starts with 0.
  bool sawLeadingZero = false;
  for (std::uint8_t i = 0; i < 255 && !sawLeadingZero; ++i) {
    sawLeadingZero = comparisonCode(fingerprint, publicKey, Data(32, i), clientNonce)[0] == '0';
  }
  EXPECT_TRUE(sawLeadingZero);
}

TEST(AuthCrypto, Base64FollowsRFC4648) {
  // RFC 4648's vectors: the prefixes of "foobar".
  const char* encodings[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  for (std::size_t size = 0; size < std::size(encodings); ++size) {
    const Data plain = bytes(std::string_view("foobar").substr(0, size));
    EXPECT_EQ(base64Encode(plain), encodings[size]);
    EXPECT_EQ(base64Decode(encodings[size]), plain);
  }
  EXPECT_EQ(base64URLEncode(Data{0xfb, 0xff}), "-_8");
  EXPECT_EQ(base64URLDecode("-_8"), (Data{0xfb, 0xff}));
  EXPECT_EQ(base64URLDecode("-_8="), (Data{0xfb, 0xff}));  // padding already there
  EXPECT_EQ(base64URLDecode("+/8"), (Data{0xfb, 0xff}));   // the standard alphabet too
  EXPECT_FALSE(base64URLDecode("Zm9v!"));
  EXPECT_FALSE(base64Decode("Zm9"));
  EXPECT_FALSE(base64Decode("Zg=a"));
  EXPECT_FALSE(base64Decode("Zh=="));  // bits hidden behind the padding
}

}  // namespace
}  // namespace kelvaron
