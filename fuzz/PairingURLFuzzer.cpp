// Arbitrary text into the pairing URL parser. Whatever parses must come back equal from its own
// URL.

#include <cstdlib>
#include <string_view>

#include "kit/security/PairingURL.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const auto parsed = kelvaron::PairingURL::parse({reinterpret_cast<const char*>(bytes), size});
  if (parsed && kelvaron::PairingURL::parse(parsed->url()) != parsed) std::abort();
  return 0;
}
