#pragma once

// The few DER encodings a self-signed certificate needs.

#include <chrono>
#include <initializer_list>
#include <string_view>

#include "kit/crypto/P256.hpp"
#include "kit/wire/Bytes.hpp"

namespace kelvaron::der {

// Short form below 128; else 0x80 + the count of bytes, then the big-endian bytes.
Data length(std::size_t n);
Data tlv(std::uint8_t tag, ByteView content);
Data sequence(std::initializer_list<ByteView> items);
Data set(std::initializer_list<ByteView> items);
// Leading zero bytes dropped (at least one kept), one 00 added if the top bit would be set.
Data integer(ByteView bigEndian);
Data objectIdentifier(ByteView encoded);
Data utf8String(std::string_view text);
Data bitString(ByteView bytes);  // no unused bits
// "%04d%02d%02d%02d%02d%02dZ" in UTC: four-digit years, also after 2049.
Data generalizedTime(std::chrono::system_clock::time_point time);

struct CertificateFields {
  Data serial;  // positive: top bit of the first byte clear
  std::string commonName;
  std::chrono::system_clock::time_point notBefore;
  std::chrono::system_clock::time_point notAfter;
  Data publicKey;  // 65-byte X9.63
};

// The TBSCertificate of an X.509 v3 certificate with ecdsa-with-SHA256, issuer = subject, no
// extensions.
Data tbsCertificate(const CertificateFields& fields);
// The whole certificate around a TBSCertificate and its DER ECDSA signature.
Data certificate(ByteView tbs, ByteView signatureDER);

}  // namespace kelvaron::der
