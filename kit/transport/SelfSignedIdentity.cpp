#include "kit/transport/SelfSignedIdentity.hpp"

#include <gnutls/x509.h>

#include <mutex>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/crypto/DER.hpp"
#include "kit/crypto/GnuTLSDatum.hpp"

namespace kelvaron {

namespace {

using namespace std::chrono_literals;

// All identity storage work of the process, across instances.
std::mutex& identityLock() {
  static std::mutex lock;
  return lock;
}

// The X9.63 public key a DER certificate carries, if it parses.
std::optional<Data> certificatePublicKey(const Data& der) {
  gnutls_x509_crt_t crt;
  if (gnutls_x509_crt_init(&crt) < 0) return std::nullopt;
  const gnutls_datum_t input = datum(der);
  std::optional<Data> key;
  gnutls_ecc_curve_t curve;
  gnutls_datum_t x{}, y{};
  if (gnutls_x509_crt_import(crt, &input, GNUTLS_X509_FMT_DER) >= 0 &&
      gnutls_x509_crt_get_pk_ecc_raw(crt, &curve, &x, &y) >= 0 &&
      curve == GNUTLS_ECC_CURVE_SECP256R1) {
    auto coordinate = [](const gnutls_datum_t& d) {
      ByteView v(d.data, d.size);
      while (v.size() > 32 && v.front() == 0) v = v.subspan(1);
      Data out(32 - std::min<std::size_t>(32, v.size()), 0);
      out.insert(out.end(), v.begin(), v.end());
      return out;
    };
    const std::uint8_t uncompressed[] = {0x04};
    key = concat({uncompressed, coordinate(x), coordinate(y)});
  }
  gnutls_free(x.data);
  gnutls_free(y.data);
  gnutls_x509_crt_deinit(crt);
  return key;
}

void purge(const IdentityStores& stores) {
  stores.certificate->remove();
  stores.key->remove();
}

}  // namespace

IdentityStores IdentityStores::files(const std::filesystem::path& directory,
                                     const std::string& tag) {
  return {std::make_shared<FileSecretStore>(directory / (tag + ".key")),
          std::make_shared<FileSecretStore>(directory / (tag + ".crt"))};
}

SelfSignedIdentity::SelfSignedIdentity(P256PrivateKey key, Data certificateDER)
    : key_(std::move(key)),
      certificateDER_(std::move(certificateDER)),
      fingerprint_(AuthCrypto::sha256(certificateDER_)) {}

SelfSignedIdentity SelfSignedIdentity::loadOrCreate(const IdentityStores& stores,
                                                    const std::string& commonName) {
  std::lock_guard guard(identityLock());
  try {
    if (auto loaded = load(stores)) return std::move(*loaded);
    purge(stores);
    SelfSignedIdentity identity = generate(commonName);
    try {
      stores.key->write(identity.key_.rawRepresentation());
      stores.certificate->write(identity.certificateDER_);
    } catch (const SecretStoreError&) {
      purge(stores);  // never leave half an identity behind
      throw;
    }
    return identity;
  } catch (const SecretStoreError& e) {
    throw IdentityError::keychain(e);
  }
}

SelfSignedIdentity SelfSignedIdentity::temporary(const std::string& commonName) {
  return generate(commonName);
}

std::optional<SelfSignedIdentity> SelfSignedIdentity::load(const IdentityStores& stores) {
  const auto scalar = stores.key->read();
  const auto certificate = stores.certificate->read();
  if (!scalar || !certificate) return std::nullopt;
  auto key = P256PrivateKey::fromRaw(*scalar);
  if (!key || certificatePublicKey(*certificate) != key->publicKey()) return std::nullopt;
  return SelfSignedIdentity(std::move(*key), *certificate);
}

SelfSignedIdentity SelfSignedIdentity::generate(const std::string& commonName) {
  try {
    P256PrivateKey key = P256PrivateKey::generate();
    Data serial = AuthCrypto::randomBytes(16);
    serial[0] &= 0x7F;  // a positive INTEGER
    const auto now = std::chrono::system_clock::now();
    const Data tbs = der::tbsCertificate({
        .serial = serial,
        .commonName = commonName,
        .notBefore = now - 3600s,      // a client with a slow clock still accepts it
        .notAfter = now + 315360000s,  // 3650 days
        .publicKey = key.publicKey(),
    });
    Data certificate = der::certificate(tbs, key.signDER(tbs));
    return SelfSignedIdentity(std::move(key), std::move(certificate));
  } catch (const CryptoError& e) {
    throw IdentityError::keyGeneration(e.what());
  }
}

}  // namespace kelvaron
