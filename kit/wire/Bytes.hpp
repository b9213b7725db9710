#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace kelvaron {

// The wire's `Data`: an owned byte string.
using Data = std::vector<std::uint8_t>;

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
};

}  // namespace kelvaron
