#include "kit/crypto/AuthCrypto.hpp"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace kelvaron::AuthCrypto {

namespace {

ByteView label(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

Data sha256(ByteView bytes) {
  Data digest(32);
  if (gnutls_hash_fast(GNUTLS_DIG_SHA256, bytes.data(), bytes.size(), digest.data()) < 0) {
    std::abort();  // the hash of memory cannot fail unless the library is broken
  }
  return digest;
}

Data hmacSHA256(ByteView key, ByteView bytes) {
  Data tag(32);
  if (gnutls_hmac_fast(GNUTLS_MAC_SHA256, key.data(), key.size(), bytes.data(), bytes.size(),
                       tag.data()) < 0) {
    std::abort();
  }
  return tag;
}

Data randomBytes(std::size_t count) {
  Data bytes(count);
  if (count > 0 && gnutls_rnd(GNUTLS_RND_RANDOM, bytes.data(), count) < 0) {
    std::fputs("the random number generator failed\n", stderr);
    std::abort();
  }
  return bytes;
}

UUID randomUUID() {
  UUID id;
  const Data bytes = randomBytes(16);
  std::copy(bytes.begin(), bytes.end(), id.bytes.begin());
  id.bytes[6] = static_cast<std::uint8_t>((id.bytes[6] & 0x0F) | 0x40);
  id.bytes[8] = static_cast<std::uint8_t>((id.bytes[8] & 0x3F) | 0x80);
  return id;
}

Data authTranscript(ByteView nonce, ByteView hostFingerprint, const UUID& deviceID,
                    const std::optional<Data>& exporter) {
  // The label says whether the TLS session is bound in; an empty exporter still selects it.
  const ByteView tail = exporter ? ByteView(*exporter) : ByteView();
  return sha256(concat({label(exporter ? "kelvaron-auth-v2-tls" : "kelvaron-auth-v1"), nonce,
                        hostFingerprint, deviceID.bytes, tail}));
}

Data signChallenge(ByteView nonce, ByteView hostFingerprint, const UUID& deviceID,
                   const std::optional<Data>& exporter, const P256PrivateKey& privateKey) {
  return privateKey.signDigest(authTranscript(nonce, hostFingerprint, deviceID, exporter));
}

bool verifyChallenge(ByteView signature, ByteView publicKey, ByteView nonce,
                     ByteView hostFingerprint, const UUID& deviceID,
                     const std::optional<Data>& exporter) {
  return verifyDigest(publicKey, signature,
                      authTranscript(nonce, hostFingerprint, deviceID, exporter));
}

Data pairingProof(ByteView token, ByteView hostFingerprint, ByteView publicKey,
                  const UUID& deviceID) {
  return hmacSHA256(
      token, concat({label("kelvaron-pair-v1"), hostFingerprint, publicKey, deviceID.bytes}));
}

Data commitment(ByteView clientNonce) { return sha256(clientNonce); }

std::string comparisonCode(ByteView hostFingerprint, ByteView publicKey, ByteView hostNonce,
                           ByteView clientNonce) {
  const Data d = sha256(
      concat({label("kelvaron-sas-v1"), hostFingerprint, publicKey, hostNonce, clientNonce}));
  const std::uint32_t value =
      std::uint32_t{d[0]} << 24 | std::uint32_t{d[1]} << 16 | std::uint32_t{d[2]} << 8 | d[3];
  char code[8];
  std::snprintf(code, sizeof code, "%06u", value % 1000000);
  return code;
}

std::string base64Encode(ByteView bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = std::uint32_t{bytes[i]} << 16;
    if (n > 1) group |= std::uint32_t{bytes[i + 1]} << 8;
    if (n > 2) group |= bytes[i + 2];
    for (std::size_t k = 0; k < 4; ++k) {
      out += k <= n ? kAlphabet[(group >> (18 - 6 * k)) & 63] : '=';
    }
  }
  return out;
}

std::optional<Data> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::array<int, 256> value;
  value.fill(-1);
  for (int i = 0; i < 64; ++i) value[static_cast<unsigned char>(kAlphabet[i])] = i;
  Data out;
  out.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    const std::size_t padding = last ? (text[i + 3] == '=') + (text[i + 2] == '=') : 0;
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      const int v = k < 4 - padding ? value[static_cast<unsigned char>(text[i + k])] : 0;
      if (v < 0) return std::nullopt;
      group = group << 6 | static_cast<std::uint32_t>(v);
    }
    // A padded group must not hide set bits behind its last character.
    if ((padding == 1 && (group & 0xFF)) || (padding == 2 && (group & 0xFFFF))) return std::nullopt;
    out.push_back(static_cast<std::uint8_t>(group >> 16));
    if (padding < 2) out.push_back(static_cast<std::uint8_t>(group >> 8));
    if (padding < 1) out.push_back(static_cast<std::uint8_t>(group));
  }
  return out;
}

std::string base64URLEncode(ByteView bytes) {
  std::string text = base64Encode(bytes);
  std::erase(text, '=');
  for (char& c : text) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  return text;
}

std::optional<Data> base64URLDecode(std::string_view text) {
  std::string standard(text);
  for (char& c : standard) {
    if (c == '-') c = '+';
    if (c == '_') c = '/';
  }
  while (standard.size() % 4 != 0) standard += '=';
  return base64Decode(standard);
}

bool constantTimeEqual(ByteView a, ByteView b) {
  if (a.size() != b.size()) return false;
  std::uint8_t difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) difference |= static_cast<std::uint8_t>(a[i] ^ b[i]);
  return difference == 0;
}

}  // namespace kelvaron::AuthCrypto
