#include "kit/transport/InMemoryConnection.hpp"

#include <gtest/gtest.h>

#include "tests/support/AsyncTest.hpp"

namespace kelvaron {
namespace {

using namespace test;

VideoFrame frame(std::uint64_t number) {
  VideoFrame f;
  f.frameNumber = number;
  f.payload = Data{1, 2, 3};
  return f;
}

// A frame that does not decode fails the receiver only: its owner decides, and the pair still
// works.
TEST(InMemoryConnection, MessagesArriveInSendOrderWhateverTheirChannelAndBadOnesFailTheReceiver) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    auto [a, b] = InMemoryConnection::makePair();
    const std::vector<Message> sent = {
        msg::key{{{4}, true, {}}}, msg::ping{1}, msg::fileChunk{1, 0, 0, {9}}, msg::text{"x"},
        msg::fileEnd{1},           msg::pong{2}};
    for (std::size_t i = 0; i < sent.size(); ++i) {
      if (i == 2) {
        EXPECT_TRUE(co_await a->sendTransfer(sent[i]));
      } else {
        a->send(sent[i]);
      }
    }
    a->send(msg::authResult{static_cast<AuthResult>(9)});  // out of its domain on the wire
    a->send(msg::ping{2});
    for (const Message& expected : sent) EXPECT_EQ(co_await b->messages().next(), expected);
    EXPECT_EQ(co_await b->messages().next(), Message(msg::ping{2}));
    EXPECT_EQ(co_await b->states().next(), ConnectionState::ready());
    EXPECT_EQ(co_await b->states().next(),
              ConnectionState::failed("invalidValue(\"auth result 9\")"));
  });
}

TEST(InMemoryConnection, VideoInFlightIsWhatTheReaderHasNotTaken) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    auto [a, b] = InMemoryConnection::makePair();
    for (int i = 0; i < 8; ++i) EXPECT_TRUE(a->sendVideo(frame(i)));
    EXPECT_FALSE(a->sendVideo(frame(8)));
    EXPECT_EQ((co_await b->videoFrames().next())->frameNumber, 0u);
    EXPECT_TRUE(a->sendVideo(frame(9)));
    EXPECT_FALSE(a->sendVideo(frame(10)));
  });
}

TEST(InMemoryConnection, CloseEndsBothEndsAndLeavesQueuedFramesReadable) {
  runAsync([](asio::io_context&) -> asio::awaitable<void> {
    auto [a, b] = InMemoryConnection::makePair();
    EXPECT_TRUE(a->sendVideo(frame(1)));
    a->send(msg::ping{1});
    a->close();
    a->close();
    for (auto* end : {a.get(), b.get()}) {
      EXPECT_EQ(co_await end->states().next(), ConnectionState::ready());
      EXPECT_EQ(co_await end->states().next(), ConnectionState::closed());
      EXPECT_EQ(co_await end->states().next(), std::nullopt);
    }
    EXPECT_EQ(co_await b->messages().next(), Message(msg::ping{1}));
    EXPECT_EQ(co_await b->messages().next(), std::nullopt);
    EXPECT_EQ((co_await b->videoFrames().next())->frameNumber, 1u);
    EXPECT_EQ(co_await b->videoFrames().next(), std::nullopt);
    EXPECT_FALSE(co_await b->sendTransfer(msg::fileEnd{1}));
    EXPECT_FALSE(b->sendVideo(frame(2)));
    b->send(msg::ping{2});  // a no-op, not an error
  });
}

TEST(InMemoryConnection, APairDroppedWithoutCloseIsFreed) {
  auto [a, b] = InMemoryConnection::makePair();
  a->send(msg::ping{1});
  const std::weak_ptr<InMemoryConnection> weakA = a, weakB = b;
  a.reset();
  b.reset();
  EXPECT_TRUE(weakA.expired() && weakB.expired());
}

}  // namespace
}  // namespace kelvaron
