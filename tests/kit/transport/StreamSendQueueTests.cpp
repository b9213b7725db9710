#include "kit/transport/StreamSendQueue.hpp"

#include <gtest/gtest.h>

namespace kelvaron {
namespace {

using Sizes = std::vector<std::size_t>;

Data concatenated(const std::vector<std::span<const std::uint8_t>>& views) {
  Data out;
  for (const auto view : views) out.insert(out.end(), view.begin(), view.end());
  return out;
}

TEST(StreamSendQueue, AnItemCountsAsSentWithItsLastByteIsKeptUntilAckedAndTheEndFollowsIt) {
  StreamSendQueue queue;
  queue.push({9}, false);  // an opening: sent, but nobody's to account for
  queue.push({1, 2, 3});
  queue.push({4, 5});
  EXPECT_EQ(concatenated(queue.unsent(8)), (Data{9, 1, 2, 3, 4, 5}));
  EXPECT_EQ(queue.unsent(1).size(), 1u);

  EXPECT_EQ(queue.markSent(2), Sizes{});  // the opening and half of the first item
  EXPECT_EQ(concatenated(queue.unsent(8)), (Data{2, 3, 4, 5}));
  EXPECT_EQ(queue.markSent(4), (Sizes{3, 2}));
  EXPECT_FALSE(queue.hasUnsent());
  EXPECT_EQ(queue.heldItems(), 3u);  // the stack may still send them again

  queue.acknowledge(0, 3);  // covers the opening, not the first item's end
  EXPECT_EQ(queue.heldItems(), 2u);
  queue.acknowledge(3, 3);
  EXPECT_EQ(queue.heldItems(), 0u);
  EXPECT_EQ(queue.ackedOffset(), 6u);

  EXPECT_FALSE(queue.finQueued());
  queue.push({6, 7});
  queue.finish();
  EXPECT_TRUE(queue.finQueued());
  EXPECT_EQ(concatenated(queue.unsent(8)), (Data{6, 7}));
  EXPECT_EQ(queue.unsentBytes(), 2u);
  EXPECT_EQ(queue.markSent(2, true), Sizes{2});
  EXPECT_FALSE(queue.finQueued());
  EXPECT_TRUE(queue.markSent(0).empty());
}

}  // namespace
}  // namespace kelvaron
