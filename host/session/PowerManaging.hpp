#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kelvaron::host {

// What keeps the display on while a device watches it.
class PowerManaging {
 public:
  virtual ~PowerManaging() = default;
  // Keeps the display awake until released; the ID to release it with, or nothing on failure.
  virtual std::optional<std::uint32_t> takeDisplayAssertion(const std::string& name) = 0;
  virtual void releaseAssertion(std::uint32_t id) = 0;
  virtual void stopAllAssertions() = 0;
  // Tells the system that a person is using it, which wakes a sleeping display.
  virtual void declareUserActivity() = 0;
};

}  // namespace kelvaron::host
