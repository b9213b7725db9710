#pragma once

#include <string>

namespace kelvaron::host {

// Tells the person at the computer that something happened, in the desktop's own way; nothing
// where the desktop has no way. Returns at once.
class Notifying {
 public:
  virtual ~Notifying() = default;
  virtual void notify(std::string summary, std::string body) = 0;
};

}  // namespace kelvaron::host
