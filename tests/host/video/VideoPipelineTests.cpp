#include "host/video/VideoPipeline.hpp"

#include <gtest/gtest.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <chrono>
#include <thread>

#include "host/video/VideoSink.hpp"
#include "kit/transport/InMemoryConnection.hpp"

namespace kelvaron::host {
namespace {

using namespace std::chrono_literals;

// Records what the pipeline asks of its encoder.
class RecordingEncoder : public VideoEncoder {
 public:
  struct Call {
    std::uint64_t captureTimeNs;
    bool highQuality;
  };
  void encode(const CapturedFrame& frame, bool, bool highQuality) override {
    std::lock_guard guard(lock);
    calls.push_back({frame.captureTimeNs, highQuality});
  }
  void requestKeyframe() override {}
  void setBitrate(std::int64_t) override {}
  void stop() override { stopped = true; }
  std::vector<Call> taken() {
    std::lock_guard guard(lock);
    return calls;
  }

  std::mutex lock;
  std::vector<Call> calls;
  bool stopped = false;
};

CapturedFrame frame(std::uint64_t time) {
  return {std::make_shared<PixelBuffer>(), 1, {0, 0, 1, 1}, time};
}

TEST(VideoPipeline, RefreshesTheLastFrameOnceWhenTheScreenGoesStill) {
  asio::io_context io;
  auto work = asio::make_work_guard(io);  // each run_for lasts its full time
  auto encoder = std::make_shared<RecordingEncoder>();
  auto pipeline = VideoPipeline::make(io.get_executor(), encoder, 50ms);
  io.run_for(150ms);
  EXPECT_TRUE(encoder->taken().empty());  // nothing submitted: the timer does nothing

  pipeline->submit(frame(1));
  io.run_for(20ms);
  pipeline->submit(frame(2));  // restarts the idle time
  io.run_for(300ms);
  auto calls = encoder->taken();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_FALSE(calls[0].highQuality);
  EXPECT_FALSE(calls[1].highQuality);
  EXPECT_TRUE(calls[2].highQuality);
  EXPECT_EQ(calls[2].captureTimeNs, 2u);  // the newest frame, once

  // Forgotten: nothing more goes out; a stopped pipeline stops its encoder and takes nothing.
  pipeline->submit(frame(3));
  pipeline->forgetRetainedFrame();
  io.run_for(150ms);
  EXPECT_EQ(encoder->taken().size(), 4u);
  pipeline->stop();
  EXPECT_TRUE(encoder->stopped);
  pipeline->submit(frame(4));
  io.run_for(100ms);
  EXPECT_EQ(encoder->taken().size(), 4u);
}
VideoFrame encoded(bool key, std::size_t size = 100) {
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

  sink.handle(encoded(true, 300), 4.0);
  EXPECT_EQ(sink.stats().framesSent, 1);
  EXPECT_EQ(sink.stats().bytesSent, 300);
  EXPECT_EQ(sink.stats().lastLatencyMs, 4.0);

  sink.handle(encoded(false), 5.0);  // the client has not read: refused
  EXPECT_EQ(sink.stats().framesDropped, 1);
  EXPECT_TRUE(sink.stats().waitingForKeyframe);
  EXPECT_EQ(requests, 1);

  host->setMaxInFlight(3);
  sink.handle(encoded(false), 5.0);  // room now, but undecodable behind the gap
  EXPECT_EQ(sink.stats().framesDropped, 2);
  EXPECT_EQ(client->videoFrames().count(), 1u);
  EXPECT_EQ(requests, 1);

  sink.handle(encoded(true), 6.0);
  EXPECT_FALSE(sink.stats().waitingForKeyframe);
  EXPECT_EQ(sink.stats().framesSent, 2);
  EXPECT_EQ(client->videoFrames().count(), 2u);
  host->setMaxInFlight(2);
  sink.handle(encoded(true), 6.0);  // a refused key frame asks again
  EXPECT_EQ(requests, 2);
  EXPECT_TRUE(sink.stats().waitingForKeyframe);
}

}  // namespace
}  // namespace kelvaron::host
