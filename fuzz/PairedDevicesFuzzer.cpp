// Arbitrary bytes into the loader of "paired-devices.json". Whatever loads must survive its own
// encoding unchanged.

#include <cstdlib>
#include <string_view>

#include "kit/security/Stores.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const auto devices = kelvaron::decodePairedDevices({reinterpret_cast<const char*>(bytes), size});
  if (devices &&
      kelvaron::decodePairedDevices(kelvaron::encodePairedDevices(*devices)) != devices) {
    std::abort();
  }
  return 0;
}
