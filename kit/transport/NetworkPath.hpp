#pragma once

#include <string>
#include <vector>

namespace kelvaron {

// One interface a connection could go out on. `type` is "wifi", "wiredEthernet" or "other".
struct NetworkInterface {
  std::string name;
  std::string type;
  friend bool operator==(const NetworkInterface&, const NetworkInterface&) = default;
};

// The network as the machine sees it: whether any interface is usable, and which, sorted by name.
struct NetworkPath {
  bool satisfied = false;
  std::vector<NetworkInterface> interfaces;
  friend bool operator==(const NetworkPath&, const NetworkPath&) = default;
};

}  // namespace kelvaron
