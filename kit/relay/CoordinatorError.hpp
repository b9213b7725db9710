#pragma once

// What can go wrong between a host and its coordinator, in the words the user sees.

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kelvaron {

class CoordinatorError : public std::runtime_error {
 public:
  enum class Kind {
    http,
    badBaseURL,
    malformedInvite,
    invalidInvite,
    badProof,
    rateLimited,
    notEnrolled,
    revoked,
    unreachable,
    badResponse,
  };

  explicit CoordinatorError(Kind kind) : CoordinatorError(kind, 0, std::nullopt) {}
  // A status the other cases do not name, with the "error" of its body if there was one.
  static CoordinatorError http(int status, std::optional<std::string> message);
  // What a response outside 200–299 means: its status and the "error" text of a body
  // {"error": text}, a body that is not that counting as no message.
  static CoordinatorError fromResponse(int status, std::string_view body);

  Kind kind() const { return kind_; }
  int status() const { return status_; }
  const std::optional<std::string>& message() const { return message_; }
  // The host's enrolment is gone: only enrolling anew helps, retrying does not.
  bool isFinal() const { return kind_ == Kind::notEnrolled || kind_ == Kind::revoked; }

 private:
  CoordinatorError(Kind kind, int status, std::optional<std::string> message);

  Kind kind_;
  int status_;
  std::optional<std::string> message_;
};

}  // namespace kelvaron
