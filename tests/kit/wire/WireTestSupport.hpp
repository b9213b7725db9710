#pragma once

// Hand-made frames for wire tests: each helper writes one primitive the way the protocol lays it
// out, independently of the codec under test.

#include <bit>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/Message.hpp"
#include "kit/wire/WireDecoder.hpp"

namespace kelvaron::test {

inline Data concat(std::initializer_list<Data> parts) {
  Data out;
  for (const Data& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

inline Data u8(std::uint8_t v) { return {v}; }
inline Data u16(std::uint16_t v) { return {std::uint8_t(v >> 8), std::uint8_t(v)}; }
inline Data u32(std::uint32_t v) {
  return {std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)};
}
inline Data u64(std::uint64_t v) {
  return concat({u32(std::uint32_t(v >> 32)), u32(std::uint32_t(v))});
}
inline Data f32(float v) { return u32(std::bit_cast<std::uint32_t>(v)); }
inline Data str(std::string_view s) {
  return concat({u16(std::uint16_t(s.size())), Data(s.begin(), s.end())});
}
inline Data data(std::initializer_list<std::uint8_t> bytes) {
  return concat({u32(std::uint32_t(bytes.size())), Data(bytes)});
}

// A whole frame: length prefix, type byte, then the parts.
inline Data frame(std::uint8_t type, std::initializer_list<Data> parts) {
  Data body = concat(parts);
  return concat({u32(std::uint32_t(body.size() + 1)), {type}, body});
}

inline Message decodeOne(const Data& bytes) {
  WireDecoder decoder;
  decoder.append(bytes);
  auto message = decoder.nextMessage();
  if (!message) throw std::runtime_error("no whole frame");
  return *message;
}

// The error that the next `read` of `decoder` raises; fails the test if it raises none.
template <class Read = decltype(&WireDecoder::nextMessage)>
WireError decodeError(WireDecoder& decoder, Read read = &WireDecoder::nextMessage) {
  try {
    (decoder.*read)();
  } catch (const WireError& e) {
    return e;
  }
  throw std::runtime_error("read without error");
}

// The error that decoding this frame raises.
inline WireError decodeError(const Data& bytes) {
  WireDecoder decoder;
  decoder.append(bytes);
  return decodeError(decoder);
}

}  // namespace kelvaron::test
