#pragma once

// TLS 1.3 for QUIC on GnuTLS: the host presents its self-signed identity, the client checks the
// host's certificate against a pinned fingerprint instead of any certificate authority.

#include <ngtcp2/ngtcp2_crypto.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "kit/wire/Bytes.hpp"

typedef struct gnutls_certificate_credentials_st* gnutls_certificate_credentials_t;
typedef struct gnutls_session_int* gnutls_session_t;

namespace kelvaron {

class SelfSignedIdentity;

// Certificate credentials: the host's identity, or none for a client. One value serves every
// connection of a listener.
class TLSCredentials {
 public:
  // Throws QUICError.
  static std::shared_ptr<TLSCredentials> host(const SelfSignedIdentity& identity);
  static std::shared_ptr<TLSCredentials> client();
  ~TLSCredentials();

  gnutls_certificate_credentials_t native() const { return credentials_; }

 private:
  TLSCredentials() = default;
  gnutls_certificate_credentials_t credentials_ = nullptr;
};

// What a client learns of the host's certificate while verifying it. Read from any thread.
class FingerprintBox {
 public:
  explicit FingerprintBox(std::optional<Data> expected) : expected_(std::move(expected)) {}

  // Records the fingerprint the peer presented; false if it is missing or not the expected one.
  bool check(std::optional<Data> presented);
  std::optional<Data> value() const;
  bool mismatch() const;

 private:
  mutable std::mutex lock_;
  std::optional<Data> value_;
  bool mismatch_ = false;
  const std::optional<Data> expected_;
};

// One TLS session driven by ngtcp2's crypto helper. `connectionRef` tells the helper which QUIC
// connection the session belongs to; a client's session verifies the host into `fingerprints`.
class TLSSession {
 public:
  enum class Role { host, client };

  // Throws QUICError.
  TLSSession(Role role, std::shared_ptr<TLSCredentials> credentials,
             ngtcp2_crypto_conn_ref connectionRef, FingerprintBox* fingerprints);
  ~TLSSession();
  TLSSession(const TLSSession&) = delete;
  TLSSession& operator=(const TLSSession&) = delete;

  gnutls_session_t native() const { return session_; }

  // The 32-byte keying material exported under our label, or nothing if TLS cannot give it.
  std::optional<Data> exporter() const;

 private:
  // The session's user pointer. ngtcp2's helper reads it as its connection reference, which is
  // why that comes first; the verify callback reads the rest.
  struct Context {
    ngtcp2_crypto_conn_ref connectionRef;
    FingerprintBox* fingerprints;
  };
  static int verifyPeer(gnutls_session_t session);

  std::shared_ptr<TLSCredentials> credentials_;
  Context context_;
  gnutls_session_t session_ = nullptr;
};

}  // namespace kelvaron
