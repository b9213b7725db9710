#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kelvaron {

// The wire's `Data`: an owned byte string.
using Data = std::vector<std::uint8_t>;

// The parts one after the other.
inline Data concat(std::initializer_list<std::span<const std::uint8_t>> parts) {
  std::size_t size = 0;
  for (auto part : parts) size += part.size();
  Data out;
  out.reserve(size);
  for (auto part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

// A read-only slice of a shared byte buffer. Media frames carry their payload as one, so that a
// decoded frame points into the bytes that were copied out of the receive buffer instead of
// copying its megabyte again.
class SharedBytes {
 public:
  SharedBytes() = default;
  SharedBytes(Data bytes)  // NOLINT(google-explicit-constructor): a value is a slice of itself
      : owner_(std::make_shared<const Data>(std::move(bytes))),
        view_(owner_->data(), owner_->size()) {}
  SharedBytes(std::shared_ptr<const Data> owner, std::span<const std::uint8_t> view)
      : owner_(std::move(owner)), view_(view) {}

  std::span<const std::uint8_t> span() const { return view_; }
  const std::uint8_t* data() const { return view_.data(); }
  std::size_t size() const { return view_.size(); }
  bool empty() const { return view_.empty(); }
  auto begin() const { return view_.begin(); }
  auto end() const { return view_.end(); }

  // A sub-slice sharing the same owner.
  SharedBytes slice(std::size_t offset, std::size_t count) const {
    return SharedBytes(owner_, view_.subspan(offset, count));
  }

  friend bool operator==(const SharedBytes& a, const SharedBytes& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
  }

 private:
  std::shared_ptr<const Data> owner_;
  std::span<const std::uint8_t> view_;
};

// A UUID as its 16 bytes, in the order of its textual form.
struct UUID {
  std::array<std::uint8_t, 16> bytes{};
  friend bool operator==(const UUID&, const UUID&) = default;
  friend auto operator<=>(const UUID&, const UUID&) = default;

  // Upper-case hyphenated text: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
  std::string string() const {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
      text += kHex[bytes[i] >> 4];
      text += kHex[bytes[i] & 15];
    }
    return text;
  }

  // The hyphenated form in either case; nothing for anything else.
  static std::optional<UUID> parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    UUID id;
    std::size_t at = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      if (i == 8 || i == 13 || i == 18 || i == 23) {
        if (c != '-') return std::nullopt;
        continue;
      }
      int v;
      if (c >= '0' && c <= '9')
        v = c - '0';
      else if (c >= 'A' && c <= 'F')
        v = c - 'A' + 10;
      else if (c >= 'a' && c <= 'f')
        v = c - 'a' + 10;
      else
        return std::nullopt;
      id.bytes[at / 2] = static_cast<std::uint8_t>(at % 2 ? id.bytes[at / 2] | v : v << 4);
      ++at;
    }
    return id;
  }
};

// 64-bit FNV-1a, as the wire's icon hashes and cursor tokens use it.
inline constexpr std::uint64_t kFnv1aBasis = 0xcbf29ce484222325;
// One step: `value` folded into `hash`.
constexpr std::uint64_t fnv1aStep(std::uint64_t hash, std::uint64_t value) {
  return (hash ^ value) * 0x100000001b3;
}
// The hash of `bytes`, continuing from `hash`.
inline std::uint64_t fnv1a(std::span<const std::uint8_t> bytes, std::uint64_t hash = kFnv1aBasis) {
  for (const std::uint8_t byte : bytes) hash = fnv1aStep(hash, byte);
  return hash;
}

}  // namespace kelvaron
