#include "host/audio/AudioTapArbiter.hpp"

#include <gtest/gtest.h>

#include <string>

namespace kelvaron::host {
namespace {

TEST(AudioTapArbiter, TheNewestClaimWinsAndOnlyTheOwnerCanLetGo) {
  const UUID first{{1}}, second{{2}}, third{{3}};
  std::string revoked;
  AudioTapArbiter arbiter;
  arbiter.acquire(first, [&] { revoked += "first "; });
  arbiter.acquire(first, [&] { revoked += "first again "; });
  EXPECT_EQ(revoked, "") << "claiming again only replaces the callback";

  arbiter.acquire(second, [&] { revoked += "second "; });
  EXPECT_EQ(revoked, "first again ");
  arbiter.release(first);  // too late: the tap is the second's now
  arbiter.acquire(third, [&] { revoked += "third "; });
  EXPECT_EQ(revoked, "first again second ");

  arbiter.release(third);
  arbiter.acquire(first, [] {});
  EXPECT_EQ(revoked, "first again second ") << "a released tap has nobody to revoke";
}

}  // namespace
}  // namespace kelvaron::host
