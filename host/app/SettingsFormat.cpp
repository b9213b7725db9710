// Apart from the rest of Settings, so that the fuzz build takes the parser alone.

#include "host/app/Settings.hpp"

namespace kelvaron::host {

std::optional<nlohmann::json> parseSettings(std::string_view text) {
  nlohmann::json parsed = nlohmann::json::parse(text, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) return std::nullopt;
  return parsed;
}

}  // namespace kelvaron::host
