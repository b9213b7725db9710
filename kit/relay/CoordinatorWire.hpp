#pragma once

// What a host and its coordinator say to each other over HTTP, both ways: the JSON bodies of
// "v1/enroll" and "v1/token", and the rules the host applies to what comes back. Keys and proofs
// travel as URL-safe base64 without padding; times as whole seconds since 1970.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// A relay the coordinator hands out.
struct RelayCandidate {
  std::string region;
  std::string host;
  std::uint16_t port = 0;
  friend bool operator==(const RelayCandidate&, const RelayCandidate&) = default;
};

// What lets a host register at a relay until `expiresAt`, and the relays it may use.
struct RelayAdmission {
  Data token;
  std::vector<RelayCandidate> relays;
  std::chrono::system_clock::time_point expiresAt;
  friend bool operator==(const RelayAdmission&, const RelayAdmission&) = default;
};

namespace CoordinatorWire {

struct EnrollRequest {
  std::string invite;  // normalised
  Data hostKey;        // 65 bytes of X9.63
  std::uint64_t ts = 0;
  Data proof;  // over the enroll message
};

struct TokenRequest {
  std::string role = "host";
  Data hostKey;
  std::uint64_t ts = 0;
  Data proof;                         // over the coordinator message
  std::optional<std::string> region;  // the key is left out when absent
};

std::string encode(const EnrollRequest& request);
std::string encode(const TokenRequest& request);
// Nothing for a body that is not such a request (keys missing or of the wrong type, base64 that
// does not decode).
std::optional<EnrollRequest> decodeEnrollRequest(std::string_view body);
std::optional<TokenRequest> decodeTokenRequest(std::string_view body);

std::string encodeAccount(const std::string& account);
std::string encodeAdmission(const RelayAdmission& admission);
std::string encodeError(std::string_view error);
// The answers of a successful enroll and token request; throw CoordinatorError::badResponse for
// anything else (a token that is no base64 of at least one byte, a port that is no 16-bit number).
std::string decodeAccount(std::string_view body);
RelayAdmission decodeAdmission(std::string_view body);

// Whether a cached admission may still be used: it expires more than `margin` after `now`.
bool isFresh(const RelayAdmission& admission, std::chrono::system_clock::time_point now,
             std::chrono::duration<double> margin);

// The coordinator's address as a person typed it, white space around it dropped: an http or https
// URL (either case) with a host. Throws CoordinatorError::badBaseURL.
std::string checkedBaseURL(std::string_view text);
// Where a request goes: the base, then "v1" and the endpoint as path components.
std::string endpointURL(std::string_view base, std::string_view endpoint);

}  // namespace CoordinatorWire

}  // namespace kelvaron
