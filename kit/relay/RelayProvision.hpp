#pragma once

#include <vector>

#include "kit/wire/Bytes.hpp"
#include "kit/wire/WireTypes.hpp"

namespace kelvaron {

// The relays a client may use to reach this host from outside, and the grant that admits it.
struct RelayProvision {
  std::vector<RelayEndpoint> relays;
  Data grant;
};

}  // namespace kelvaron
