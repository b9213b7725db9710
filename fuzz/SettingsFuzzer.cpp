// The host's settings file: any bytes either parse to an object or count as nothing stored.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "host/app/Settings.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto parsed = kelvaron::host::parseSettings({reinterpret_cast<const char*>(data), size});
  if (parsed && !parsed->is_object()) __builtin_trap();
  return 0;
}
