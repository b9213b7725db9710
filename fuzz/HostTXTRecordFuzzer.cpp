// Arbitrary bytes as a host's DNS-SD TXT record. Whatever host ID it yields must come back
// unchanged from the record the advertiser writes for it.

#include <cstdint>
#include <cstdlib>
#include <span>

#include "kit/transport/HostTXTRecord.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const auto hostID = kelvaron::HostTXTRecord::hostID({bytes, size});
  if (hostID &&
      kelvaron::HostTXTRecord::hostID(kelvaron::HostTXTRecord::encode(hostID)) != hostID) {
    std::abort();
  }
  return 0;
}
