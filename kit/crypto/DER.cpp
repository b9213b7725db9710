#include "kit/crypto/DER.hpp"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace kelvaron::der {

namespace {

constexpr std::uint8_t kInteger = 0x02, kBitString = 0x03, kOID = 0x06, kUTF8String = 0x0C,
                       kGeneralizedTime = 0x18, kSequence = 0x30, kSet = 0x31, kVersionTag = 0xA0;

const Data kEcdsaWithSHA256{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02};
const Data kCommonName{0x55, 0x04, 0x03};
const Data kECPublicKey{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
const Data kPrime256v1{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};

Data constructed(std::uint8_t tag, std::initializer_list<ByteView> items) {
  return tlv(tag, concat(items));
}

Data name(std::string_view commonName) {
  return sequence({set({sequence({objectIdentifier(kCommonName), utf8String(commonName)})})});
}

Data signatureAlgorithm() { return sequence({objectIdentifier(kEcdsaWithSHA256)}); }

}  // namespace

Data length(std::size_t n) {
  if (n < 128) return {static_cast<std::uint8_t>(n)};
  Data bytes;
  for (; n > 0; n >>= 8) bytes.insert(bytes.begin(), static_cast<std::uint8_t>(n));
  bytes.insert(bytes.begin(), static_cast<std::uint8_t>(0x80 | bytes.size()));
  return bytes;
}

Data tlv(std::uint8_t tag, ByteView content) {
  const std::uint8_t tagByte[] = {tag};
  return concat({tagByte, length(content.size()), content});
}

Data sequence(std::initializer_list<ByteView> items) { return constructed(kSequence, items); }
Data set(std::initializer_list<ByteView> items) { return constructed(kSet, items); }

Data integer(ByteView bigEndian) {
  while (bigEndian.size() > 1 && bigEndian.front() == 0) bigEndian = bigEndian.subspan(1);
  Data content;
  if (bigEndian.empty() || bigEndian.front() & 0x80) content.push_back(0);
  content.insert(content.end(), bigEndian.begin(), bigEndian.end());
  return tlv(kInteger, content);
}

Data objectIdentifier(ByteView encoded) { return tlv(kOID, encoded); }

Data utf8String(std::string_view text) {
  return tlv(kUTF8String, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

Data bitString(ByteView bytes) {
  const std::uint8_t noUnusedBits[] = {0x00};
  return tlv(kBitString, concat({noUnusedBits, bytes}));
}

Data generalizedTime(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return tlv(kGeneralizedTime, {reinterpret_cast<const std::uint8_t*>(text), std::strlen(text)});
}

Data tbsCertificate(const CertificateFields& f) {
  const std::uint8_t v3[] = {2};
  const Data subject = name(f.commonName);
  return sequence({
      tlv(kVersionTag, integer(v3)),
      integer(f.serial),
      signatureAlgorithm(),
      subject,
      sequence({generalizedTime(f.notBefore), generalizedTime(f.notAfter)}),
      subject,
      sequence({sequence({objectIdentifier(kECPublicKey), objectIdentifier(kPrime256v1)}),
                bitString(f.publicKey)}),
  });
}

Data certificate(ByteView tbs, ByteView signatureDER) {
  return sequence({tbs, signatureAlgorithm(), bitString(signatureDER)});
}

}  // namespace kelvaron::der
