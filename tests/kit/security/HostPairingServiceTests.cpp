#include "kit/security/HostPairingService.hpp"

#include <gtest/gtest.h>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/ManualClock.hpp"

namespace kelvaron {
namespace {

using namespace std::chrono_literals;

struct Fixture {
  test::ManualClock clock;
  std::shared_ptr<PairedDeviceStore> store = std::make_shared<PairedDeviceStore>(std::nullopt);
  HostPairingService service{UUID{{1}}, "studio", Data(32, 9),
                             store,     nullptr,  [this] { return clock.now(); }};
  const Data publicKey = P256PrivateKey::generate().publicKey();
  const UUID device{{2}};

  Data proof(const PairingToken& token) {
    return AuthCrypto::pairingProof(token.value, Data(32, 9), publicKey, device);
  }
};

using Redemption = HostPairingService::Redemption;

TEST(HostPairingService, ATokenIsGoodOnceAndUntilItExpires) {
  Fixture f;
  EXPECT_EQ(f.service.redeem(Data(32), f.publicKey, f.device), Redemption::invalid);  // no token
  auto token = f.service.issueToken();
  EXPECT_EQ(token.value.size(), 16u);
  EXPECT_EQ(f.service.redeem(Data(32, 0), f.publicKey, f.device), Redemption::invalid);
  f.clock.advance(299s);
  EXPECT_EQ(f.service.redeem(f.proof(token), f.publicKey, f.device), Redemption::success);
  EXPECT_EQ(f.service.redeem(f.proof(token), f.publicKey, f.device), Redemption::invalid);

  token = f.service.issueToken();
  f.clock.advance(300s);  // the exact instant of expiry
  EXPECT_EQ(f.service.redeem(f.proof(token), f.publicKey, f.device), Redemption::expired);
  EXPECT_EQ(f.service.redeem(f.proof(token), f.publicKey, f.device), Redemption::invalid);

  const auto older = f.service.issueToken();
  const auto newer = f.service.issueToken();
  EXPECT_EQ(f.service.redeem(f.proof(older), f.publicKey, f.device), Redemption::invalid);
  EXPECT_EQ(f.service.redeem(f.proof(newer), f.publicKey, f.device), Redemption::success);

  const auto url = f.service.pairingURL(newer);
  EXPECT_EQ(url.hostName, "studio");
  EXPECT_EQ(url.token, newer.value);
}

TEST(HostPairingService, ThreeAttemptsInASlidingMinute) {
  Fixture f;
  const auto first = f.service.beginAttempt();
  f.clock.advance(10s);
  ASSERT_TRUE(f.service.beginAttempt());
  const auto third = f.service.beginAttempt();
  ASSERT_TRUE(third);
  EXPECT_FALSE(f.service.beginAttempt());
  f.service.endAttempt(*third, false);  // a failure stays charged
  EXPECT_FALSE(f.service.beginAttempt());
  f.service.endAttempt(*third, true);  // a success gives its slot back
  EXPECT_TRUE(f.service.beginAttempt());
  EXPECT_FALSE(f.service.beginAttempt());
  f.clock.advance(50s);  // the first is now 60 s old
  EXPECT_TRUE(f.service.beginAttempt());
  (void)first;
}

TEST(HostPairingService, RevokeEndsEveryConnectionOfTheDevice) {
  Fixture f;
  int changes = 0;
  f.service.setChangeHandler([&] { ++changes; });
  f.store->add({f.device, "iPad", f.publicKey, f.clock.now(), std::nullopt});
  auto [a, peerA] = InMemoryConnection::makePair();
  auto [b, peerB] = InMemoryConnection::makePair();
  auto [c, peerC] = InMemoryConnection::makePair();
  f.service.registerConnection(UUID{{10}}, f.device, a);
  f.service.registerConnection(UUID{{11}}, f.device, b);
  f.service.registerConnection(UUID{{12}}, UUID{{3}}, c);
  EXPECT_EQ(f.store->device(f.device)->lastSeen, f.clock.now());
  EXPECT_EQ(changes, 3);
  EXPECT_EQ(f.service.connectedDeviceIDs(), (std::set<UUID>{f.device, UUID{{3}}}));

  f.service.revoke(f.device);
  EXPECT_EQ(changes, 4);
  EXPECT_FALSE(f.store->device(f.device));
  EXPECT_TRUE(peerA->messages().isFinished());
  EXPECT_TRUE(peerB->messages().isFinished());
  EXPECT_FALSE(peerC->messages().isFinished());
  f.service.unregisterConnection(UUID{{12}});
  EXPECT_TRUE(f.service.connectedDeviceIDs().empty());
  EXPECT_EQ(changes, 4);  // unregistering tells nobody
}

}  // namespace
}  // namespace kelvaron
