#include "kit/crypto/P256.hpp"

#include <gmp.h>
#include <gnutls/abstract.h>
#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>
#include <nettle/ecc-curve.h>
#include <nettle/ecc.h>

#include <algorithm>

#include "kit/crypto/GnuTLSDatum.hpp"

namespace kelvaron {

namespace {

constexpr std::size_t kCoordinate = 32;

// Takes ownership of a datum GnuTLS allocated.
Data take(gnutls_datum_t& d) {
  Data out(d.data, d.data + d.size);
  gnutls_free(d.data);
  d.data = nullptr;
  return out;
}

// A big-endian integer as exactly 32 bytes: leading zeros dropped or added.
Data fixedWidth(ByteView value) {
  while (value.size() > kCoordinate && value.front() == 0) value = value.subspan(1);
  Data out(kCoordinate - std::min(kCoordinate, value.size()), 0);
  out.insert(out.end(), value.begin(), value.end());
  return out;
}

void check(int status, const char* what) {
  if (status < 0) throw CryptoError(std::string(what) + ": " + gnutls_strerror(status));
}

struct PublicKey {
  gnutls_pubkey_t key = nullptr;
  ~PublicKey() {
    if (key) gnutls_pubkey_deinit(key);
  }
};

Data exportCoordinate(const mpz_t value) {
  Data bytes(kCoordinate);
  std::size_t count = 0;
  mpz_export(bytes.data(), &count, 1, 1, 1, 0, value);  // below the field prime: 32 bytes at most
  bytes.resize(count);
  return fixedWidth(bytes);
}

// The public point of a scalar. GnuTLS cannot import a private key without its point, so the
// point is computed with Nettle, the library GnuTLS itself computes with.
std::optional<std::pair<Data, Data>> publicPointOf(ByteView scalar) {
  const ecc_curve* curve = nettle_get_secp_256r1();
  mpz_t z, x, y;
  mpz_inits(z, x, y, nullptr);
  mpz_import(z, scalar.size(), 1, 1, 1, 0, scalar.data());
  ecc_scalar s;
  ecc_point p;
  ecc_scalar_init(&s, curve);
  ecc_point_init(&p, curve);
  std::optional<std::pair<Data, Data>> point;
  if (ecc_scalar_set(&s, z)) {  // 0 < z < the group order
    ecc_point_mul_g(&p, &s);
    ecc_point_get(&p, x, y);
    point.emplace(exportCoordinate(x), exportCoordinate(y));
  }
  ecc_point_clear(&p);
  ecc_scalar_clear(&s);
  mpz_clears(z, x, y, nullptr);
  return point;
}

// GnuTLS imports any coordinates; Nettle checks that they lie on the curve.
bool isOnCurve(ByteView x963) {
  mpz_t x, y;
  mpz_inits(x, y, nullptr);
  mpz_import(x, kCoordinate, 1, 1, 1, 0, x963.data() + 1);
  mpz_import(y, kCoordinate, 1, 1, 1, 0, x963.data() + 1 + kCoordinate);
  ecc_point p;
  ecc_point_init(&p, nettle_get_secp_256r1());
  const bool on = ecc_point_set(&p, x, y) != 0;
  ecc_point_clear(&p);
  mpz_clears(x, y, nullptr);
  return on;
}

// Imports an X9.63 point; false if it is not one.
bool importPublicKey(ByteView x963, PublicKey& out) {
  if (x963.size() != 1 + 2 * kCoordinate || x963[0] != 0x04 || !isOnCurve(x963)) return false;
  if (gnutls_pubkey_init(&out.key) < 0) return false;
  const auto x = datum(x963.subspan(1, kCoordinate));
  const auto y = datum(x963.subspan(1 + kCoordinate, kCoordinate));
  return gnutls_pubkey_import_ecc_raw(out.key, GNUTLS_ECC_CURVE_SECP256R1, &x, &y) >= 0;
}

}  // namespace

void P256PrivateKey::Free::operator()(gnutls_privkey_t key) const { gnutls_privkey_deinit(key); }

P256PrivateKey P256PrivateKey::generate() {
  gnutls_privkey_t key;
  check(gnutls_privkey_init(&key), "key");
  P256PrivateKey result(key);
  check(gnutls_privkey_generate2(key, GNUTLS_PK_ECDSA,
                                 GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0, nullptr, 0),
        "key generation");
  return result;
}

std::optional<P256PrivateKey> P256PrivateKey::fromRaw(ByteView scalar) {
  if (scalar.size() != kCoordinate) return std::nullopt;
  const auto point = publicPointOf(scalar);
  if (!point) return std::nullopt;
  gnutls_privkey_t key;
  if (gnutls_privkey_init(&key) < 0) return std::nullopt;
  P256PrivateKey result(key);
  const auto x = datum(point->first), y = datum(point->second), k = datum(scalar);
  if (gnutls_privkey_import_ecc_raw(key, GNUTLS_ECC_CURVE_SECP256R1, &x, &y, &k) < 0) {
    return std::nullopt;
  }
  return result;
}

// The key's coordinates and scalar, each as exactly 32 bytes.
P256PrivateKey::RawParts P256PrivateKey::exportRaw() const {
  gnutls_ecc_curve_t curve;
  gnutls_datum_t x{}, y{}, k{};
  check(gnutls_privkey_export_ecc_raw2(key_.get(), &curve, &x, &y, &k, 0), "key export");
  return {fixedWidth(take(x)), fixedWidth(take(y)), fixedWidth(take(k))};
}

Data P256PrivateKey::rawRepresentation() const { return exportRaw().k; }

Data P256PrivateKey::publicKey() const {
  const RawParts raw = exportRaw();
  const std::uint8_t uncompressed[] = {0x04};
  return concat({uncompressed, raw.x, raw.y});
}

Data P256PrivateKey::signDigest(ByteView digest) const {
  const auto hash = datum(digest);
  gnutls_datum_t der{};
  check(gnutls_privkey_sign_hash2(key_.get(), GNUTLS_SIGN_ECDSA_SHA256, 0, &hash, &der), "sign");
  const Data derBytes = take(der);
  const auto derDatum = datum(derBytes);
  gnutls_datum_t r{}, s{};
  check(gnutls_decode_rs_value(&derDatum, &r, &s), "signature");
  Data raw = fixedWidth(take(r));
  const Data sBytes = fixedWidth(take(s));
  raw.insert(raw.end(), sBytes.begin(), sBytes.end());
  return raw;
}

Data P256PrivateKey::signDER(ByteView data) const {
  const auto input = datum(data);
  gnutls_datum_t der{};
  check(gnutls_privkey_sign_data2(key_.get(), GNUTLS_SIGN_ECDSA_SHA256, 0, &input, &der), "sign");
  return take(der);
}

bool isValidPublicKey(ByteView publicKey) {
  PublicKey key;
  return importPublicKey(publicKey, key);
}

bool verifyDigest(ByteView publicKey, ByteView signature, ByteView digest) {
  if (signature.size() != 2 * kCoordinate) return false;
  PublicKey key;
  if (!importPublicKey(publicKey, key)) return false;
  const auto r = datum(signature.first(kCoordinate));
  const auto s = datum(signature.subspan(kCoordinate));
  gnutls_datum_t der{};
  if (gnutls_encode_rs_value(&der, &r, &s) < 0) return false;
  const Data derBytes = take(der);
  const auto derDatum = datum(derBytes);
  const auto hash = datum(digest);
  return gnutls_pubkey_verify_hash2(key.key, GNUTLS_SIGN_ECDSA_SHA256, 0, &hash, &derDatum) >= 0;
}

}  // namespace kelvaron
