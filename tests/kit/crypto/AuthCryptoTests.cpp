#include "kit/crypto/AuthCrypto.hpp"

#include <gtest/gtest.h>

namespace kelvaron {
namespace {

using namespace AuthCrypto;

Data hex(std::string_view text) {
  Data out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    out.push_back(
        static_cast<std::uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
  }
  return out;
}
Data bytes(std::string_view text) { return Data(text.begin(), text.end()); }

// One vector each: the library computes them, these check that the right ones are asked for.
TEST(AuthCrypto, HashesAndP256MatchThePublishedVectors) {
  // FIPS 180-2; RFC 4231, test case 2.
  EXPECT_EQ(sha256(bytes("abc")),
            hex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
  EXPECT_EQ(hmacSHA256(bytes("Jefe"), bytes("what do ya want for nothing?")),
            hex("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"));
  // RFC 6979, A.2.5: the key pair, and the signatures of "sample" and "test" with SHA-256.
  const Data scalar = hex("c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721");
  const Data publicKey =
      hex("0460fed4ba255a9d31c961eb74c6356d68c049b8923b61fa6ce669622e60f29fb6"
          "7903fe1008b8bc99a41ae9e95628bc64f2f1b20c2d7e9f5177a3c294d4462299");
  const auto key = P256PrivateKey::fromRaw(scalar);
  ASSERT_TRUE(key);
  EXPECT_EQ(key->publicKey(), publicKey);
  EXPECT_EQ(key->rawRepresentation(), scalar);

  const Data sample =
      hex("efd48b2aacb6a8fd1140dd9cd45e81d69d2c877b56aaf991c34d0ea84eaf3716"
          "f7cb1c942d657c41d436c7a1b6e29f65f3e900dbb9aff4064dc4ab2f843acda8");
  const Data test =
      hex("f1abb023518351cd71d881567b1ea663ed3efcf6c5132b354f28d3b0b7d38367"
          "019f4113742a2b14bd25926b49c649155f267e60d3814b4c0cc84250e46f0083");
  EXPECT_TRUE(verifyDigest(publicKey, sample, sha256(bytes("sample"))));
  EXPECT_TRUE(verifyDigest(publicKey, test, sha256(bytes("test"))));
  EXPECT_FALSE(verifyDigest(publicKey, test, sha256(bytes("sample"))));

  // Malformed input is simply not valid.
  EXPECT_FALSE(
      verifyDigest(publicKey, Data(sample.begin(), sample.end() - 1), sha256(bytes("sample"))));
  Data longer = sample;
  longer.push_back(0);
  EXPECT_FALSE(verifyDigest(publicKey, longer, sha256(bytes("sample"))));
  Data offCurve = publicKey;
  offCurve[64] ^= 1;
  EXPECT_FALSE(isValidPublicKey(offCurve));
  EXPECT_FALSE(verifyDigest(offCurve, sample, sha256(bytes("sample"))));
  EXPECT_FALSE(isValidPublicKey(Data(publicKey.begin(), publicKey.end() - 1)));
  EXPECT_FALSE(P256PrivateKey::fromRaw(Data(32, 0)));
  EXPECT_FALSE(P256PrivateKey::fromRaw(Data(32, 0xff)));  // above the group order
  EXPECT_FALSE(P256PrivateKey::fromRaw(Data(31, 1)));
}

TEST(AuthCrypto, ChallengesSignedByOneSideVerifyOnTheOther) {
  const auto device = P256PrivateKey::generate();
  const Data nonce = randomBytes(32), fingerprint = randomBytes(32);
  const UUID id{{1, 2, 3}};
  for (const auto& exporter : {std::optional<Data>(), std::optional<Data>(Data(32, 7))}) {
    const Data signature = signChallenge(nonce, fingerprint, id, exporter, device);
    EXPECT_EQ(signature.size(), 64u);
    EXPECT_TRUE(verifyChallenge(signature, device.publicKey(), nonce, fingerprint, id, exporter));
    EXPECT_FALSE(
        verifyChallenge(signature, device.publicKey(), nonce, fingerprint, UUID{{9}}, exporter));
  }
  // The exporter binds the TLS session: present or absent, the transcripts differ, and a
  // signature made in one session fails in another.
  EXPECT_NE(authTranscript(nonce, fingerprint, id, std::nullopt),
            authTranscript(nonce, fingerprint, id, Data{}));
  const Data exporter(32, 7);
  EXPECT_FALSE(verifyChallenge(signChallenge(nonce, fingerprint, id, exporter, device),
                               device.publicKey(), nonce, fingerprint, id, Data(32, 8)));
  Data input = bytes("kelvaron-auth-v2-tls");
  for (ByteView part : {ByteView(nonce), ByteView(fingerprint), ByteView(id.bytes),
                        ByteView(exporter)}) {
    input.insert(input.end(), part.begin(), part.end());
  }
  EXPECT_EQ(authTranscript(nonce, fingerprint, id, exporter), sha256(input));

  const auto restored = P256PrivateKey::fromRaw(device.rawRepresentation());
  ASSERT_TRUE(restored);
  EXPECT_EQ(restored->publicKey(), device.publicKey());

  // Whole values only, compared without an early end.
  EXPECT_TRUE(constantTimeEqual(nonce, nonce));
  EXPECT_FALSE(constantTimeEqual(nonce, ByteView(nonce).first(31)));
  Data flipped = nonce;
  flipped[31] ^= 1;
  EXPECT_FALSE(constantTimeEqual(nonce, flipped));
  EXPECT_TRUE(constantTimeEqual(Data{}, Data{}));
  EXPECT_NE(randomBytes(16), randomBytes(16));
}

TEST(AuthCrypto, PairingConstructionsAreTheirDefinitions) {
  const Data token(16, 1), fingerprint(32, 2), publicKey(65, 3), hostNonce(32, 4),
      clientNonce(32, 5);
  const UUID id{{6}};
  Data proofInput = bytes("kelvaron-pair-v1");
  for (ByteView part : {ByteView(fingerprint), ByteView(publicKey), ByteView(id.bytes)}) {
    proofInput.insert(proofInput.end(), part.begin(), part.end());
  }
  EXPECT_EQ(pairingProof(token, fingerprint, publicKey, id), hmacSHA256(token, proofInput));
  EXPECT_EQ(commitment(clientNonce), sha256(clientNonce));

  const std::string code = comparisonCode(fingerprint, publicKey, hostNonce, clientNonce);
  EXPECT_EQ(code.size(), 6u);
  EXPECT_EQ(code, comparisonCode(fingerprint, publicKey, hostNonce, clientNonce));
  EXPECT_NE(code, comparisonCode(fingerprint, publicKey, clientNonce, hostNonce));
  // Small values keep their leading zeros: search a nonce whose code starts with 0.
  bool sawLeadingZero = false;
  for (std::uint8_t i = 0; i < 255 && !sawLeadingZero; ++i) {
    sawLeadingZero = comparisonCode(fingerprint, publicKey, Data(32, i), clientNonce)[0] == '0';
  }
  EXPECT_TRUE(sawLeadingZero);
}

TEST(AuthCrypto, Base64FollowsRFC4648) {
  const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"}};
  for (auto [plain, encoded] : vectors) {
    EXPECT_EQ(base64Encode(bytes(plain)), encoded);
    EXPECT_EQ(base64Decode(encoded), bytes(plain));
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
