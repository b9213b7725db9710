#include "host/video/VideoSink.hpp"

#include <gtest/gtest.h>

#include "kit/transport/InMemoryConnection.hpp"

namespace kelvaron::host {
namespace {

VideoFrame frame(bool key, std::size_t size = 100) {
  VideoFrame f;
  f.isKeyframe = key;
  f.payload = Data(size, 7);
  return f;
}

TEST(VideoSink, AfterARefusalOnlyAKeyFrameIsOffered) {
  auto [client, host] = InMemoryConnection::makePair();
  host->setMaxInFlight(1);
  VideoSink sink(host);
  int requests = 0;
  sink.setKeyframeRequester([&] { ++requests; });

  sink.handle(frame(true, 300), 4.0);
  EXPECT_EQ(sink.stats().framesSent, 1);
  EXPECT_EQ(sink.stats().bytesSent, 300);
  EXPECT_EQ(sink.stats().lastLatencyMs, 4.0);

  sink.handle(frame(false), 5.0);  // the client has not read: refused
  EXPECT_EQ(sink.stats().framesDropped, 1);
  EXPECT_TRUE(sink.stats().waitingForKeyframe);
  EXPECT_EQ(requests, 1);

  host->setMaxInFlight(3);
  sink.handle(frame(false), 5.0);  // room now, but undecodable behind the gap
  EXPECT_EQ(sink.stats().framesDropped, 2);
  EXPECT_EQ(client->videoFrames().count(), 1u);
  EXPECT_EQ(requests, 1);

  sink.handle(frame(true), 6.0);
  EXPECT_FALSE(sink.stats().waitingForKeyframe);
  EXPECT_EQ(sink.stats().framesSent, 2);
  EXPECT_EQ(client->videoFrames().count(), 2u);
  host->setMaxInFlight(2);
  sink.handle(frame(true), 6.0);  // a refused key frame asks again
  EXPECT_EQ(requests, 2);
  EXPECT_TRUE(sink.stats().waitingForKeyframe);
}

}  // namespace
}  // namespace kelvaron::host
