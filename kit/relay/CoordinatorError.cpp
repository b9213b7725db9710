#include "kit/relay/CoordinatorError.hpp"

#include <nlohmann/json.hpp>

namespace kelvaron {

namespace {

std::string textOf(CoordinatorError::Kind kind, int status,
                   const std::optional<std::string>& message) {
  using Kind = CoordinatorError::Kind;
  switch (kind) {
    case Kind::http: {
      std::string text = "The relay answered " + std::to_string(status);
      if (message) text += ": " + *message;
      text += '.';
      return text;
    }
    case Kind::badBaseURL:
      return "The relay address is not valid.";
    case Kind::malformedInvite:
      return "That invite is not valid. It has 10 letters and digits.";
    case Kind::invalidInvite:
      return "That invite is invalid, used or expired";
    case Kind::badProof:
      return "The relay rejected this computer's proof (is the clock right?)";
    case Kind::rateLimited:
      return "Too many tries. Wait a minute and try again";
    case Kind::notEnrolled:
    case Kind::revoked:
      return "Remote access for this computer was removed";
    case Kind::unreachable:
      return "Can't reach the relay";
    case Kind::badResponse:
      return "The relay sent an unexpected response.";
  }
  return {};
}

// The "error" of a body {"error": text}, as a person may be shown it: control characters (a
// terminal's escapes among them) dropped, and no longer than a line.
std::optional<std::string> errorText(std::string_view body) {
  const auto json = nlohmann::json::parse(body, nullptr, false);
  if (!json.is_object()) return std::nullopt;
  const auto error = json.find("error");
  if (error == json.end() || !error->is_string()) return std::nullopt;
  std::string text;
  for (const char c : error->get_ref<const std::string&>()) {
    const auto byte = static_cast<unsigned char>(c);
    if (text.size() >= 200 && (byte & 0xc0) != 0x80) break;  // not within a character
    if (byte >= 0x20 && byte != 0x7f) text += c;
  }
  return text;
}

}  // namespace

CoordinatorError::CoordinatorError(Kind kind, int status, std::optional<std::string> message)
    : std::runtime_error(textOf(kind, status, message)),
      kind_(kind),
      status_(status),
      message_(std::move(message)) {}

CoordinatorError CoordinatorError::http(int status, std::optional<std::string> message) {
  return {Kind::http, status, std::move(message)};
}

CoordinatorError CoordinatorError::fromResponse(int status, std::string_view body) {
  const auto message = errorText(body);
  if (status == 429) return CoordinatorError(Kind::rateLimited);
  if (status == 403 && message == "bad_proof") return CoordinatorError(Kind::badProof);
  if (status == 401 && message == "invalid_invite") return CoordinatorError(Kind::invalidInvite);
  if (status == 401 && message == "not_enrolled") return CoordinatorError(Kind::notEnrolled);
  if (status == 401 && message == "revoked") return CoordinatorError(Kind::revoked);
  return http(status, message);
}

}  // namespace kelvaron
