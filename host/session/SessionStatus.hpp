#pragma once

#include <optional>
#include <string>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// What a session reports to the application: plain data, copied on every report.
struct SessionStatus {
  enum class Phase { negotiating, streaming, ended };

  Phase phase = Phase::negotiating;
  std::string deviceName;
  std::string displayName;
  int width = 0;
  int height = 0;
  std::optional<CodecProfile> profile;
  double bitrateMbps = 0;
  double targetBitrateMbps = 0;
  std::optional<double> encodeLatencyMs;
  double fps = 0;
  int framesSent = 0;
  int framesDropped = 0;
  std::optional<std::string> captureError;
  std::optional<std::string> note;

  friend bool operator==(const SessionStatus&, const SessionStatus&) = default;
};

}  // namespace kelvaron::host
