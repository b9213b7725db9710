#include "kit/transport/PathChangeDetector.hpp"

namespace kelvaron {

PathChangeDetector::Signature PathChangeDetector::signature(const NetworkPath& path) {
  Signature signature{path.satisfied, {}};
  for (const auto& interface : path.interfaces) signature.interfaceTypes.insert(interface.type);
  return signature;
}

bool PathChangeDetector::update(const Signature& next) {
  const bool restart = last_ && *last_ != next;
  last_ = next;
  return restart;
}

}  // namespace kelvaron
