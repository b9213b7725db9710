#include "kit/wire/WireError.hpp"

namespace kelvaron {

WireError WireError::unknownType(std::uint8_t type) {
  WireError e(Kind::unknownType, "unknownType(" + std::to_string(type) + ")");
  e.type_ = type;
  return e;
}

WireError WireError::invalidValue(std::string label) {
  WireError e(Kind::invalidValue, "invalidValue(\"" + label + "\")");
  e.label_ = std::move(label);
  return e;
}

WireError WireError::invalidByte(const char* label, std::uint8_t byte) {
  return invalidValue(label + std::to_string(byte));
}

WireError WireError::frameTooLarge(std::uint64_t length) {
  WireError e(Kind::frameTooLarge, "frameTooLarge(" + std::to_string(length) + ")");
  e.length_ = length;
  return e;
}

WireError WireError::truncated() { return WireError(Kind::truncated, "truncated"); }

}  // namespace kelvaron
