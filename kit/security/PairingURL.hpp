#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "kit/wire/Bytes.hpp"

namespace kelvaron {

// What a pairing QR code carries: how to find the host, its certificate's fingerprint to pin, and
// a one-time token. tovu://pair?v=1&h=<host ID>&n=<name>&fp=<fingerprint>&t=<token>[&a=<address>]
struct PairingURL {
  UUID hostID;
  std::string hostName;
  Data fingerprint;  // 32 bytes
  Data token;        // 16 bytes
  // Where the host listened when it made the link, "HOST:PORT" (IPv6 in brackets), for a client
  // that cannot find it by DNS-SD. The item "a", written last: links without it stay valid, and
  // readers that do not know it skip it.
  std::optional<std::string> address;

  // Always with the scheme "tovu".
  std::string url() const;
  // Nothing unless every part is there and well-formed.
  static std::optional<PairingURL> parse(std::string_view text);
  // Schemes taken on parsing, compared in lower case; invite links share them.
  static constexpr std::array<std::string_view, 2> acceptedSchemes{"tovu", "kelvaron"};

  friend bool operator==(const PairingURL&, const PairingURL&) = default;
};

// Query values of a URL, percent-encoded and decoded. Decoding yields nothing for a malformed
// escape; "+" stays "+".
std::string percentEncode(std::string_view text);
std::optional<std::string> percentDecode(std::string_view text);

}  // namespace kelvaron
