// Bodies from anyone to a coordinator, and from a coordinator to a host: each either decodes to
// what encodes and decodes again to the same, or is refused. The same bytes as a client's stored
// relay configurations: what decodes is kept, and reads back the same once cleaned.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kit/relay/CoordinatorError.hpp"
#include "kit/relay/CoordinatorWire.hpp"
#include "kit/relay/RelayConfig.hpp"

using namespace kelvaron;

namespace {

template <class Request>
bool sameRequest(const Request& a, const Request& b) {
  return a.hostKey == b.hostKey && a.ts == b.ts && a.proof == b.proof;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  if (const auto enroll = CoordinatorWire::decodeEnrollRequest(body)) {
    const auto again = CoordinatorWire::decodeEnrollRequest(CoordinatorWire::encode(*enroll));
    if (!again || !sameRequest(*again, *enroll) || again->invite != enroll->invite) {
      __builtin_trap();
    }
  }
  if (const auto token = CoordinatorWire::decodeTokenRequest(body)) {
    const auto again = CoordinatorWire::decodeTokenRequest(CoordinatorWire::encode(*token));
    if (!again || !sameRequest(*again, *token) || again->region != token->region) __builtin_trap();
  }
  try {
    const RelayAdmission admission = CoordinatorWire::decodeAdmission(body);
    if (CoordinatorWire::decodeAdmission(CoordinatorWire::encodeAdmission(admission)) !=
        admission) {
      __builtin_trap();
    }
  } catch (const CoordinatorError&) {
  }
  try {
    (void)CoordinatorWire::decodeAccount(body);
  } catch (const CoordinatorError&) {
  }
  (void)CoordinatorError::fromResponse(401, body);

  const auto stored = std::make_shared<MemorySecretStore>();
  stored->write(Data(data, data + size));
  const RelayConfigStore configs(stored);
  const auto ids = configs.hostIDs();
  for (const UUID& id : ids) {
    if (!configs.config(id)) __builtin_trap();
  }
  if (configs.hostIDs() != ids) __builtin_trap();
  return 0;
}
