#pragma once

#include <optional>
#include <set>
#include <string>

#include "kit/transport/NetworkPath.hpp"

namespace kelvaron {

// Decides when a browse must start over: when the network comes or goes, or when the kinds of
// interface it goes out on change. A new interface of a kind already there changes nothing.
class PathChangeDetector {
 public:
  struct Signature {
    bool satisfied = false;
    std::set<std::string> interfaceTypes;
    friend bool operator==(const Signature&, const Signature&) = default;
  };

  static Signature signature(const NetworkPath& path);

  // Remembers `next`; true when it calls for a restart. The first signature only sets the scene.
  bool update(const Signature& next);

  const std::optional<Signature>& last() const { return last_; }

 private:
  std::optional<Signature> last_;
};

}  // namespace kelvaron
