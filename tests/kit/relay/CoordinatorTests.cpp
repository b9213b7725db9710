// What a person types as an invite, and what the coordinator's refusals say to them.

#include <gtest/gtest.h>

#include "kit/relay/CoordinatorError.hpp"
#include "kit/relay/InviteCode.hpp"
#include "kit/relay/RelayConfig.hpp"
#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/relay/RelaySigner.hpp"

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

// A client keeps a host's relay configuration only when it is one it can use; in store, an entry
// that does not decode costs only itself.
TEST(RelayConfig, IsKeptOnlyWhenUsableAndABadEntryCostsOnlyItself) {
  const P256RelaySigner host(P256PrivateKey::generate());
  const Data me = P256PrivateKey::generate().publicKey();
  const Data other = P256PrivateKey::generate().publicKey();
  const auto now = std::chrono::system_clock::now();
  const Data grant = RelayJoinGrant::issue(me, host, RelayJoinGrant::defaultLifetime, now);
  const std::vector<RelayEndpoint> one{{"relay.example", 4433}};
  struct Case {
    RelayConfig config;
    bool valid;
  };
  const std::vector<Case> cases{
      {{one, grant}, true},
      {{std::vector<RelayEndpoint>(8, one[0]), grant}, true},
      {{std::vector<RelayEndpoint>(9, one[0]), grant}, false},
      {{{}, grant}, false},
      {{{{"", 4433}}, grant}, false},
      {{{{"relay.example", 0}}, grant}, false},
      {{one, RelayJoinGrant::issue(other, host, RelayJoinGrant::defaultLifetime, now)}, false},
      {{one, Data(grant.begin(), grant.end() - 1)}, false},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(cases[i].config.isValidFor(me), cases[i].valid) << "case " << i;
  }

  const auto secrets = std::make_shared<MemorySecretStore>();
  RelayConfigStore store(secrets);
  const UUID a = *UUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  store.save({one, grant}, a);
  const Data written = *secrets->read();
  const std::string good(written.begin(), written.end());
  const std::string stored = good.substr(0, good.size() - 1) +
                             R"(,"not a uuid":{},"11111111-2222-3333-4444-555555555555":)"
                             R"({"relays":[{"host":"h","port":70000}],"grant":"AA=="}})";
  secrets->write(Data(stored.begin(), stored.end()));
  EXPECT_EQ(store.hostIDs(), std::vector<UUID>{a});
  EXPECT_EQ(*secrets->read(), written);
  EXPECT_EQ(store.config(a), (RelayConfig{one, grant}));
  store.remove(a);
  EXPECT_EQ(secrets->read(), std::nullopt);
}

}  // namespace
}  // namespace kelvaron
