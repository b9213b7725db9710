#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace kelvaron {

// The failure of every wire reader. Its text is the error's textual form, e.g.
// `invalidValue("bool 2")`, which the transport passes on to a person unchanged.
class WireError : public std::exception {
 public:
  enum class Kind { unknownType, invalidValue, frameTooLarge, truncated };

  static WireError unknownType(std::uint8_t type);
  static WireError invalidValue(std::string label);
  static WireError frameTooLarge(std::uint64_t length);
  static WireError truncated();
  // `invalidValue` with a label that carries the offending byte in decimal, e.g. "bool 2".
  static WireError invalidByte(const char* label, std::uint8_t byte);

  Kind kind() const { return kind_; }
  std::uint8_t type() const { return type_; }
  const std::string& label() const { return label_; }
  std::uint64_t length() const { return length_; }
  const char* what() const noexcept override { return text_.c_str(); }

  friend bool operator==(const WireError& a, const WireError& b) {
    return a.kind_ == b.kind_ && a.type_ == b.type_ && a.label_ == b.label_ &&
           a.length_ == b.length_;
  }

 private:
  WireError(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}

  Kind kind_;
  std::uint8_t type_ = 0;
  std::string label_;
  std::uint64_t length_ = 0;
  std::string text_;
};

}  // namespace kelvaron
