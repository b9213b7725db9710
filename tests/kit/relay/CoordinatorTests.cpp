// What a person types as an invite, and what the coordinator's refusals say to them.

#include <gtest/gtest.h>

#include "kit/relay/CoordinatorError.hpp"
#include "kit/relay/InviteCode.hpp"

namespace kelvaron {
namespace {

TEST(InviteCode, IsReadAsTypedAndShownInTwoHalves) {
  const struct {
    const char* typed;
    std::optional<std::string> code;
  } cases[] = {
      {"abcde-fghjk", "ABCDEFGHJK"},
      {" 12345\n67890 ", "1234567890"},
      {"oOiIlL-abcd", "001111ABCD"},  // look-alikes read as digits before the alphabet applies
      {"ABCDE-FGHJU", std::nullopt},  // U is not in the alphabet
      {"ABCDE-FGHJ", std::nullopt},
      {"ABCDE-FGHJKM", std::nullopt},
      {"ABCDE_FGHJK", std::nullopt},
      {"ÄBCDE-FGHJK", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(InviteCode::normalize(c.typed), c.code) << c.typed;
  EXPECT_EQ(InviteCode::display("ABCDEFGHJK"), "ABCDE-FGHJK");
  EXPECT_EQ(InviteCode::display("ABCDEFGHJ"), "ABCDEFGHJ");
  EXPECT_EQ(RelayRegion::displayName("SiN"), "Singapore");
  EXPECT_EQ(RelayRegion::displayName("sing"), "sing");
}

TEST(CoordinatorError, AResponsesStatusAndErrorDecideWhatThePersonReads) {
  using Kind = CoordinatorError::Kind;
  const struct {
    int status;
    const char* body;
    Kind kind;
    const char* text;
  } cases[] = {
      {401, R"({"error":"something_else"})", Kind::http, "The relay answered 401: something_else."},
      {500, "<html>oops", Kind::http, "The relay answered 500."},
      {403, "{}", Kind::http, "The relay answered 403."},
      {403, R"({"error":"bad_proof"})", Kind::badProof,
       "The relay rejected this computer's proof (is the clock right?)"},
      {403, R"({"error":7})", Kind::http, "The relay answered 403."},
      {429, "", Kind::rateLimited, "Too many tries. Wait a minute and try again"},
      {401, R"({"error":"invalid_invite"})", Kind::invalidInvite,
       "That invite is invalid, used or expired"},
      {401, R"({"error":"not_enrolled"})", Kind::notEnrolled,
       "Remote access for this computer was removed"},
      {401, R"({"error":"revoked"})", Kind::revoked, "Remote access for this computer was removed"},
  };
  for (const auto& c : cases) {
    const auto error = CoordinatorError::fromResponse(c.status, c.body);
    EXPECT_EQ(error.kind(), c.kind) << c.status << " " << c.body;
    EXPECT_STREQ(error.what(), c.text);
  }
}

}  // namespace
}  // namespace kelvaron
