#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "kit/crypto/P256.hpp"
#include "kit/crypto/SecretStore.hpp"

namespace kelvaron {

// Why an identity could not be had: its key could not be made (with the reason), or its store
// failed (with the system's error number).
class IdentityError : public std::runtime_error {
 public:
  enum class Kind { keyGeneration, keychain };

  static IdentityError keyGeneration(const std::string& reason) {
    return {Kind::keyGeneration, "key generation: " + reason, 0};
  }
  static IdentityError keychain(const SecretStoreError& failure) {
    return {Kind::keychain, std::string("keychain: ") + failure.what(), failure.code};
  }

  Kind kind() const { return kind_; }
  int status() const { return status_; }

 private:
  IdentityError(Kind kind, const std::string& text, int status)
      : std::runtime_error(text), kind_(kind), status_(status) {}
  Kind kind_;
  int status_;
};

// Where an identity's key (its 32-byte scalar) and certificate (DER) are kept.
struct IdentityStores {
  std::shared_ptr<SecretStore> key;
  std::shared_ptr<SecretStore> certificate;

  // Two files in `directory`, named after `tag`.
  static IdentityStores files(const std::filesystem::path& directory, const std::string& tag);
};

inline constexpr const char* kHostIdentityTag = "io.dovka.tovu.host.identity";

// The host's TLS identity: a P-256 key and a self-signed X.509 certificate. Clients pin its
// fingerprint (SHA-256 of the certificate), so a persistent identity must survive restarts.
class SelfSignedIdentity {
 public:
  // Loads the identity kept in `stores`, or makes and keeps a new one. A key without its
  // certificate, a certificate without its key, or a pair that does not belong together is purged
  // and replaced. Throws IdentityError.
  static SelfSignedIdentity loadOrCreate(const IdentityStores& stores,
                                         const std::string& commonName);
  // An identity kept nowhere, for the life of the object.
  static SelfSignedIdentity temporary(const std::string& commonName);

  const P256PrivateKey& privateKey() const { return key_; }
  const Data& certificateDER() const { return certificateDER_; }
  const Data& fingerprint() const { return fingerprint_; }  // 32 bytes

 private:
  SelfSignedIdentity(P256PrivateKey key, Data certificateDER);
  static SelfSignedIdentity generate(const std::string& commonName);
  static std::optional<SelfSignedIdentity> load(const IdentityStores& stores);

  P256PrivateKey key_;
  Data certificateDER_;
  Data fingerprint_;
};

}  // namespace kelvaron
