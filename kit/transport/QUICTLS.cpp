#include "kit/transport/QUICTLS.hpp"

#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <ngtcp2/ngtcp2_crypto_gnutls.h>

#include <cstring>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/crypto/GnuTLSDatum.hpp"
#include "kit/transport/QUICConfiguration.hpp"
#include "kit/transport/SelfSignedIdentity.hpp"

namespace kelvaron {

namespace {

// TLS 1.3 only, with the ciphers QUIC defines, and no middlebox compatibility records, which QUIC
// has no use for.
constexpr const char* kPriorities =
    "NORMAL:-VERS-ALL:+VERS-TLS1.3:-CIPHER-ALL:+AES-128-GCM:+AES-256-GCM:+CHACHA20-POLY1305:"
    "+AES-128-CCM:%DISABLE_TLS13_COMPAT_MODE";

void check(int result, const char* what) {
  if (result < 0) {
    throw QUICError::failed(std::string(what) + ": " + gnutls_strerror(result));
  }
}

}  // namespace

std::shared_ptr<TLSCredentials> TLSCredentials::host(const SelfSignedIdentity& identity) {
  std::shared_ptr<TLSCredentials> credentials(new TLSCredentials());
  check(gnutls_certificate_allocate_credentials(&credentials->credentials_), "credentials");

  gnutls_x509_crt_t certificate = nullptr;
  gnutls_x509_privkey_t key = nullptr;
  const gnutls_datum_t der = datum(identity.certificateDER());
  int result = gnutls_x509_crt_init(&certificate);
  if (result >= 0) result = gnutls_x509_crt_import(certificate, &der, GNUTLS_X509_FMT_DER);
  if (result >= 0) result = gnutls_privkey_export_x509(identity.privateKey().native(), &key);
  // The credentials take copies of both.
  if (result >= 0) {
    result = gnutls_certificate_set_x509_key(credentials->credentials_, &certificate, 1, key);
  }
  if (key) gnutls_x509_privkey_deinit(key);
  if (certificate) gnutls_x509_crt_deinit(certificate);
  check(result, "identity");
  return credentials;
}

std::shared_ptr<TLSCredentials> TLSCredentials::client() {
  std::shared_ptr<TLSCredentials> credentials(new TLSCredentials());
  check(gnutls_certificate_allocate_credentials(&credentials->credentials_), "credentials");
  return credentials;
}

TLSCredentials::~TLSCredentials() {
  if (credentials_) gnutls_certificate_free_credentials(credentials_);
}

bool FingerprintBox::check(std::optional<Data> presented) {
  std::lock_guard guard(lock_);
  value_ = std::move(presented);
  if (!value_) return false;
  if (expected_ && *expected_ != *value_) {
    mismatch_ = true;
    return false;
  }
  return true;
}

std::optional<Data> FingerprintBox::value() const {
  std::lock_guard guard(lock_);
  return value_;
}

bool FingerprintBox::mismatch() const {
  std::lock_guard guard(lock_);
  return mismatch_;
}

TLSSession::TLSSession(Role role, std::shared_ptr<TLSCredentials> credentials,
                       ngtcp2_crypto_conn_ref connectionRef, FingerprintBox* fingerprints)
    : credentials_(std::move(credentials)), context_{connectionRef, fingerprints} {
  const bool host = role == Role::host;
  check(
      gnutls_init(&session_, (host ? GNUTLS_SERVER : GNUTLS_CLIENT) | GNUTLS_NO_END_OF_EARLY_DATA),
      "session");
  try {
    check(host ? ngtcp2_crypto_gnutls_configure_server_session(session_)
               : ngtcp2_crypto_gnutls_configure_client_session(session_),
          "QUIC session");
    check(gnutls_priority_set_direct(session_, kPriorities, nullptr), "priorities");
    check(gnutls_credentials_set(session_, GNUTLS_CRD_CERTIFICATE, credentials_->native()),
          "credentials");
    gnutls_datum_t protocol{
        reinterpret_cast<unsigned char*>(const_cast<char*>(kQUICApplicationProtocol)),
        static_cast<unsigned>(std::strlen(kQUICApplicationProtocol))};
    check(gnutls_alpn_set_protocols(session_, &protocol, 1, GNUTLS_ALPN_MANDATORY), "ALPN");
    gnutls_session_set_ptr(session_, &context_);
    if (!host) gnutls_session_set_verify_function(session_, verifyPeer);
  } catch (...) {
    gnutls_deinit(session_);
    throw;
  }
}

TLSSession::~TLSSession() { gnutls_deinit(session_); }

// The client trusts the host by the SHA-256 of the first certificate it presents, nothing else.
int TLSSession::verifyPeer(gnutls_session_t session) {
  auto* context = static_cast<Context*>(gnutls_session_get_ptr(session));
  unsigned count = 0;
  const gnutls_datum_t* chain = gnutls_certificate_get_peers(session, &count);
  std::optional<Data> presented;
  if (chain && count > 0) presented = AuthCrypto::sha256(ByteView(chain[0].data, chain[0].size));
  return context->fingerprints->check(std::move(presented)) ? 0 : GNUTLS_E_CERTIFICATE_ERROR;
}

std::optional<Data> TLSSession::exporter() const {
  Data secret(kTLSExporterLength);
  const int result =
      gnutls_prf_rfc5705(session_, std::strlen(kTLSExporterLabel), kTLSExporterLabel, 0, nullptr,
                         secret.size(), reinterpret_cast<char*>(secret.data()));
  if (result < 0) return std::nullopt;
  return secret;
}

}  // namespace kelvaron
