// The video path's logic; libx265 through libavcodec, decoded back by the reference client's
// decoder; the pipeline that feeds an encoder and the sink that sends what comes out.

#include "host/video/LibavHEVCEncoder.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <latch>
#include <map>
#include <mutex>
#include <numeric>
#include <random>
#include <thread>

#include "client/VideoDecoder.hpp"
#include "host/video/BitrateController.hpp"
#include "host/video/CaptureGeometry.hpp"
#include "host/video/LibavEncoderFactory.hpp"
#include "host/video/RegionTagger.hpp"
#include "host/video/VideoPipeline.hpp"
#include "host/video/VideoSink.hpp"
#include "kit/media/CaptureClock.hpp"
#include "kit/media/CodecProfileNames.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/DesktopPicture.hpp"
#include "tests/support/HostFakes.hpp"

namespace kelvaron::host {
namespace {

using namespace test;
using namespace std::chrono_literals;

const Feedback kClean{60, 0, 5.0f, false};
const Feedback kDropped{59, 1, 5.0f, false};

TEST(BitrateController, CutsAtOnceRaisesAfterCleanIntervalsAndKeepsItsBounds) {
  BitrateController controller;
  EXPECT_EQ(controller.update(kClean, 0.0), std::nullopt);
  EXPECT_EQ(controller.update(kClean, 1.0), std::nullopt);
  EXPECT_EQ(controller.update(kClean, 2.0), 17600000);
  EXPECT_EQ(controller.update(kClean, 3.0), std::nullopt);
  EXPECT_EQ(controller.update(kClean, 4.0), 19360000);

  controller = {.cleanSince = 0.0};
  EXPECT_EQ(controller.update(kDropped, 10.0), 11200000);
  EXPECT_EQ(controller.update(kDropped, 10.3), std::nullopt);  // within the cooldown
  EXPECT_FALSE(controller.cleanSince);
  EXPECT_EQ(controller.update(kDropped, 10.5), 7839999);  // truncated, as doubles give it
  // High jitter is congestion too; exactly the threshold is not, nor is no reading.
  EXPECT_EQ(controller.update({60, 0, 30.5f, false}, 11.0), 5487999);
  EXPECT_EQ(controller.update({60, 0, 30.0f, false}, 11.6), std::nullopt);
  EXPECT_EQ(controller.update({60, 0, NAN, false}, 11.7), std::nullopt);
  EXPECT_EQ(controller.cleanSince, 11.6);

  BitrateController low{.bitrate = BitrateController::kMinimum};
  EXPECT_EQ(low.update(kDropped, 1.0), std::nullopt);
  EXPECT_EQ(low.bitrate, BitrateController::kMinimum);
  EXPECT_EQ(low.lastDecrease, 1.0);  // the cut still counts for the cooldown
  BitrateController high{.bitrate = BitrateController::kMaximum};
  EXPECT_EQ(high.update(kClean, 0.0), std::nullopt);
  EXPECT_EQ(high.update(kClean, 2.0), std::nullopt);
  EXPECT_EQ(high.cleanSince, 2.0);  // moves on, yielding nothing
}

const NormalizedRect kWhole{0, 0, 1, 1};
const NormalizedRect kLeft{0, 0, 0.5f, 1};
const NormalizedRect kCorner{0.5f, 0.5f, 0.5f, 0.5f};
constexpr std::uint64_t kSecond = 1'000'000'000;

// Frames stamped before a change keep the old rectangle, those up to its confirmation none (they
// are dropped), later ones the new; unstamped ones the rectangle in force unless one is pending.
TEST(RegionTagger, AttributesEachFrameToTheRectangleItWasTakenWith) {
  using Step = std::pair<std::optional<NormalizedRect>, std::uint64_t>;  // a confirmation if none
  using Attribution = std::pair<std::optional<std::uint64_t>, std::optional<NormalizedRect>>;
  const std::vector<std::tuple<const char*, std::vector<Step>, std::vector<Attribution>>> cases = {
      {"none", {{{}, 7 * kSecond}}, {{{}, kCorner}, {5 * kSecond, kCorner}}},
      {"pending", {{kLeft, 100}}, {{0, kCorner}, {99, kCorner}, {100, {}}, {250, {}}, {{}, {}}}},
      {"confirmed",
       {{kLeft, 100}, {{}, 200}},
       {{99, kCorner}, {100, {}}, {200, {}}, {201, kLeft}, {{}, kLeft}}},
      {"confirmed early: a gap", {{kLeft, 500}, {{}, 400}}, {{500, {}}, {501, kLeft}}},
      {"two pending", {{kLeft, 100}, {kWhole, 150}}, {{99, kCorner}, {120, {}}}},
      {"first confirmed",
       {{kLeft, 100}, {kWhole, 150}, {{}, 200}},
       {{99, kCorner}, {250, {}}, {{}, {}}}},
      {"both confirmed",
       {{kLeft, 100}, {kWhole, 150}, {{}, 200}, {{}, 300}},
       {{99, kCorner}, {250, {}}, {301, kWhole}, {{}, kWhole}}},
  };
  for (const auto& [changes, steps, expected] : cases) {
    SCOPED_TRACE(changes);
    RegionTagger tagger;
    NormalizedRect inForce = kCorner;
    for (const auto& [requested, at] : steps) {
      if (requested) tagger.request(std::exchange(inForce, *requested), *requested, at);
      if (!requested) tagger.confirm(at);
    }
    for (const auto& [stamp, rect] : expected)
      EXPECT_EQ(tagger.attribute(stamp, inForce), rect) << (stamp ? *stamp : 0);
  }
}

// After a failed change frames flow again with the rectangle before it; history older than a
// second is forgotten.
TEST(RegionTagger, RollsBackAFailedChangeAndForgetsOldHistory) {
  RegionTagger tagger;
  EXPECT_EQ(tagger.rollback(), std::nullopt);  // nothing known yet
  tagger.request(kWhole, kLeft, 100);
  tagger.request(kLeft, kCorner, 150);
  EXPECT_EQ(tagger.rollback(), kLeft);   // the earlier change is still on its way
  EXPECT_EQ(tagger.rollback(), kWhole);  // back to what was in force before both
  EXPECT_EQ(tagger.rollback(), kWhole);
  EXPECT_EQ(tagger.attribute(500, kWhole), kWhole);
  EXPECT_EQ(tagger.attribute(std::nullopt, kWhole), kWhole);

  tagger = {};
  tagger.request(kWhole, kLeft, 100);
  tagger.confirm(200);  // a cutoff below zero counts as zero: the first segment stays
  EXPECT_EQ(tagger.segments().size(), 2u);

  tagger.request(kLeft, kCorner, 3 * kSecond);
  tagger.confirm(3 * kSecond + 10);
  // Only the segment in force at the cutoff and the newer one remain, and the old gap is gone.
  EXPECT_EQ(tagger.segments(),
            (std::vector<RegionTagger::Segment>{{kLeft, 200}, {kCorner, 3 * kSecond + 10}}));
  EXPECT_EQ(tagger.gaps(), (std::vector<RegionTagger::Gap>{{3 * kSecond, 3 * kSecond + 10}}));
  EXPECT_EQ(tagger.attribute(150, kCorner), kCorner);  // older than all history: the fallback
  EXPECT_EQ(tagger.attribute(2 * kSecond, kCorner), kLeft);

  // A gap ending exactly at the cutoff is still kept.
  tagger.request(kCorner, kWhole, 4 * kSecond + 10);
  tagger.confirm(4 * kSecond + 10);
  EXPECT_EQ(tagger.gaps().front(), (RegionTagger::Gap{3 * kSecond, 3 * kSecond + 10}));
}

DisplayInfo display(std::uint32_t width, std::uint32_t height) {
  return {7, "screen", true, width, height, {0, 0, float(width), float(height)}};
}

// By default the client's screen, never scaled up, each side even and at least 2. Rectangles from
// the network are made usable; regions render at most at the display's density.
TEST(CaptureGeometry, FitsTheClientNormalisesRectanglesAndRendersRegionsAtMostAtTheirDensity) {
  const auto viewport = [](DisplayInfo shown, std::uint32_t width, std::uint32_t height) {
    return defaultViewport(shown, {{CodecProfile::hevcMain}, width, height, 2, "", false});
  };
  // Fitted to the client's width: 1179x736.875, each side made even.
  EXPECT_EQ(viewport(display(2560, 1600), 1179, 2556), (Viewport{7, kWhole, 1178, 736}));
  EXPECT_EQ(viewport(display(0, 0), 0, 0), (Viewport{7, kWhole, 2, 2}));

  EXPECT_FLOAT_EQ(normalizedRect({0.9995f, 0, 0.5f, 1}).width, 0.001f);  // minimal, sticking out
  EXPECT_EQ(normalizedRect({NAN, -3, NAN, INFINITY}), (NormalizedRect{0, 0, 0.001f, 1}));

  const DisplayInfo screen = display(1920, 1080);
  const scope::region region{{100, 200, 400, 300}};
  EXPECT_EQ(sourceGeometry(screen, {7, {0, 0, 0.5f, 0.5f}, 1600, 1200}, region),
            (SourceGeometry{{100, 200, 200, 150}, {200, 150}}));
  EXPECT_EQ(sourceGeometry(screen, {7, kWhole, 200, 200}, region).output, (PixelSize{200, 150}));
}

// libx265, and what it hands out on its thread, waited for with a deadline.
struct X265 {
  explicit X265(CodecProfile profile = CodecProfile::hevcMain, std::int64_t rate = 4000000)
      : encoder(LibavBackend::libx265(), profile, rate, [this](EncoderOutput output) {
          std::lock_guard guard(lock);
          outputs.push_back(std::move(output));
          ready.notify_all();
        }) {}

  // Encodes a picture of display 3, taken now unless told, and waits for its frame.
  VideoFrame encode(PixelBufferRef picture, std::uint64_t time = monotonicRawNs(),
                    bool highQuality = false) {
    encoder.encode({std::move(picture), 3, {0.25f, 0, 0.5f, 1}, time}, false, highQuality);
    std::unique_lock guard(lock);
    if (!ready.wait_for(guard, 10s, [&] { return !outputs.empty(); }))
      throw std::runtime_error("the encoder handed out nothing");
    const EncoderOutput output = std::move(outputs.front());
    outputs.pop_front();
    if (auto* failed = std::get_if<encoderOutput::failed>(&output))
      throw std::runtime_error("encoder failed: " + failed->text);
    return std::get<encoderOutput::frame>(output).frame;
  }

  std::mutex lock;
  std::condition_variable ready;
  std::deque<EncoderOutput> outputs;
  LibavHEVCEncoder encoder;  // last: its thread stops before the rest goes
};

TEST(LibavHEVCEncoder, EncodesWhatTheDecoderShowsBack) {
  X265 x265(CodecProfile::hevcMain, 16000000);
  client::VideoDecoder decoder;
  const auto first = desktopPicture(1280, 720);
  // Every session starts with a key frame, tagged with what was captured.
  const VideoFrame key = x265.encode(first);
  EXPECT_EQ(
      std::tuple(key.isKeyframe, key.parameterSets.size(), key.profile, key.displayID,
                 key.frameNumber, key.sourceRect),
      std::tuple(true, 3u, CodecProfile::hevcMain, 3u, 1u, NormalizedRect{0.25f, 0, 0.5f, 1}));
  EXPECT_GE(psnr(decoder, key, *first), 35.0);

  // A changed picture is a delta frame without parameter sets, and decodes on top of the key;
  // the same picture once more at high quality, as at rest, is clearly sharper.
  const auto moved = desktopPicture(1280, 720, 24);
  const VideoFrame delta = x265.encode(moved);
  EXPECT_TRUE(!delta.isKeyframe && delta.parameterSets.empty());
  const double inMotion = psnr(decoder, delta, *moved);
  EXPECT_GE(inMotion, 35.0);
  const VideoFrame sharpened = x265.encode(moved, monotonicRawNs(), true);
  EXPECT_GE(psnr(decoder, sharpened, *moved), inMotion + 3) << "in motion " << inMotion;

  // A key frame when asked for, and only then.
  x265.encoder.requestKeyframe();
  EXPECT_TRUE(x265.encode(first).isKeyframe);
  EXPECT_FALSE(x265.encode(moved).isKeyframe);

  // A new size is a new session, opened by a key frame with its own parameter sets.
  const auto small = desktopPicture(640, 360);
  const VideoFrame resized = x265.encode(small);
  EXPECT_EQ(std::tuple(resized.isKeyframe, resized.width, resized.height),
            std::tuple(true, 640u, 360u));
  EXPECT_GE(psnr(decoder, resized, *small), 35.0);
}

// BT.709 for every size and profile, in every codec session: the encoder converts with it and the
// stream says so, so a solid colour decodes as captured. The check that guards against encoders
// quietly producing another profile tells the profiles apart.
TEST(LibavHEVCEncoder, ConvertsWithBT709SaysSoAndMakesTheProfileAskedFor) {
  using enum CodecProfile;
  constexpr std::uint8_t kRGB[] = {220, 40, 80};
  EXPECT_FALSE(matchesProfile({}, hevcMain));  // no parameter sets: no match
  for (const CodecProfile profile : {hevcMain, hevcMain444}) {
    X265 x265(profile);
    for (const auto& [width, height] : {std::pair{1280, 720}, std::pair{320, 192}}) {
      SCOPED_TRACE(testing::Message() << width << "x" << height << " " << profileLabel(profile));
      auto picture = std::make_shared<PixelBuffer>(PixelBuffer{width, height, width * 4, {}});
      for (int i = 0; i < width * height; ++i)
        picture->bytes.insert(picture->bytes.end(), {kRGB[2], kRGB[1], kRGB[0], 255});
      const VideoFrame key = x265.encode(picture);
      EXPECT_EQ(key.profile, profile);
      const std::vector<hevc::NALUnit> units(key.parameterSets.begin(), key.parameterSets.end());
      for (const CodecProfile other : {hevcMain, hevcMain10, hevcMain444})
        EXPECT_EQ(matchesProfile(units, other), other == profile) << profileLabel(other);
      const auto sps = std::ranges::find(units, hevc::kSPS, hevc::nalType);
      ASSERT_NE(sps, units.end());
      EXPECT_EQ(hevc::readColourDescription(*sps), (hevc::ColourDescription{1, 1, 1, false}));
      const auto shown = client::VideoDecoder().decode(key);
      ASSERT_TRUE(shown);
      const auto middle = std::size_t((height / 2 * width + width / 2) * 4);
      for (std::size_t c = 0; c < 3; ++c) EXPECT_NEAR(shown->rgba[middle + c], kRGB[c], 3);
    }
  }
}

constexpr std::uint64_t kStreamStart = 5'000'000'000'000;  // any capture time

// A stream that never asks for a key frame still gets one two minutes of its time after the last.
TEST(LibavHEVCEncoder, SendsAKeyFrameAtLeastEveryTwoMinutes) {
  X265 x265;
  const auto picture = desktopPicture(320, 192);
  std::vector<std::uint64_t> keyframeSeconds;
  for (const std::uint64_t second : {0, 30, 60, 90, 119, 120, 150, 239, 241}) {
    if (x265.encode(picture, kStreamStart + second * kSecond).isKeyframe)
      keyframeSeconds.push_back(second);
  }
  EXPECT_EQ(keyframeSeconds, (std::vector<std::uint64_t>{0, 120, 241}));
}

// A new rate is in force within a second of stream time. It takes a new codec session, opened by
// a key frame, so a change within a second of the last key frame waits: feedback cannot bring a
// storm of key frames. Noise spends every rate given, so what comes out measures the rate.
TEST(LibavHEVCEncoder, FollowsANewBitRateWithinASecond) {
  constexpr std::int64_t kLow = 2000000, kHigh = 8000000;
  constexpr std::size_t kFramesPerSecond = 60;
  std::mt19937 random(7);
  std::vector<PixelBufferRef> noise;
  for (int i = 0; i < 4; ++i) {
    PixelBuffer picture{320, 192, 320 * 4, std::vector<std::uint8_t>(320 * 192 * 4)};
    for (auto& byte : picture.bytes) byte = std::uint8_t(random());
    noise.push_back(std::make_shared<PixelBuffer>(std::move(picture)));
  }
  X265 x265(CodecProfile::hevcMain, kLow);
  // Half the high rate comes at once, with a key frame; the high rate, asked for ten frames later,
  // only a second after that key frame (at 180); the low rate at once again.
  const std::map<std::size_t, std::int64_t> newRates{{120, kHigh / 2}, {130, kHigh}, {300, kLow}};
  std::vector<std::size_t> sizes, keyframes;
  for (std::size_t n = 0; n < 420; ++n) {
    if (newRates.contains(n)) x265.encoder.setBitrate(newRates.at(n));
    const VideoFrame frame =
        x265.encode(noise[n % noise.size()], kStreamStart + n * kSecond / kFramesPerSecond);
    if (frame.isKeyframe) keyframes.push_back(n);
    sizes.push_back(frame.payload.size());
  }
  const auto bitsPerSecond = [&](std::size_t first) {  // of one second of frames from `first` on
    const auto from = sizes.begin() + std::ptrdiff_t(first);
    return 8 * double(std::accumulate(from, from + kFramesPerSecond, std::size_t{0}));
  };
  EXPECT_EQ(keyframes, (std::vector<std::size_t>{0, 120, 180, 300}));
  EXPECT_NEAR(bitsPerSecond(60), kLow, kLow / 4);
  EXPECT_NEAR(bitsPerSecond(240), kHigh, kHigh / 4);
  EXPECT_NEAR(bitsPerSecond(360), kLow, kLow / 4);
}

// The last owner may let go from the output handler, on the encoding thread: nothing the encoder
// leaves behind may be touched after it is gone (the sanitizer build watches).
TEST(LibavHEVCEncoder, MayBeReleasedFromItsOwnOutputHandler) {
  std::shared_ptr<LibavHEVCEncoder> owner;
  std::latch onlyOwnerLeft(1);
  auto handlerLife = std::make_shared<int>(0);
  const std::weak_ptr<int> handlerAlive = handlerLife;
  owner = std::make_shared<LibavHEVCEncoder>(
      LibavBackend::libx265(), CodecProfile::hevcMain, 4000000,
      [&owner, &onlyOwnerLeft, life = std::move(handlerLife)](EncoderOutput) {
        onlyOwnerLeft.wait();
        owner.reset();
      });
  owner->encode({desktopPicture(320, 192), 0, kWhole, monotonicRawNs()}, false, false);
  onlyOwnerLeft.count_down();
  for (int i = 0; i < 1000 && !handlerAlive.expired(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(handlerAlive.expired());
}

TEST(LibavEncoderFactory, ProbeFindsWhatLibx265ProducesAndSkipsSilentHardware) {
  const LibavEncoderFactory factory({LibavBackend::libx265()});
  EXPECT_THAT(factory.supportedProfiles(),
              testing::IsSupersetOf({CodecProfile::hevcMain, CodecProfile::hevcMain444}));
  const LibavEncoderFactory none({{"hevc_nvenc", {}}}, {CodecProfile::hevcMain});
  EXPECT_TRUE(none.supportedProfiles().empty());
}

TEST(VideoPipeline, RefreshesTheLastFrameOnceWhenTheScreenGoesStill) {
  asio::io_context io;
  auto work = asio::make_work_guard(io);  // each run_for lasts its full time
  auto encoder = std::make_shared<FakeEncoder>(nullptr);
  auto pipeline = VideoPipeline::make(io.get_executor(), encoder, 50ms);
  const auto submit = [&](std::uint64_t time) {
    pipeline->submit({std::make_shared<PixelBuffer>(), 1, {0, 0, 1, 1}, time});
  };
  io.run_for(150ms);
  EXPECT_TRUE(encoder->encodes.empty());  // nothing submitted: the timer does nothing
  submit(1);
  io.run_for(20ms);
  submit(2);  // restarts the idle time
  io.run_for(300ms);
  // The newest frame, once, at high quality.
  using Calls = std::vector<std::pair<std::uint64_t, bool>>;
  EXPECT_EQ(encoder->encodes, (Calls{{1, false}, {2, false}, {2, true}}));

  // Forgotten: nothing more goes out; a stopped pipeline stops its encoder and takes nothing.
  submit(3);
  pipeline->forgetRetainedFrame();
  io.run_for(150ms);
  EXPECT_EQ(encoder->encodes.size(), 4u);
  pipeline->stop();
  EXPECT_TRUE(encoder->stopped);
  submit(4);
  io.run_for(100ms);
  EXPECT_EQ(encoder->encodes.size(), 4u);
}

VideoFrame encoded(bool key, std::size_t size = 100) {
  return {.isKeyframe = key, .payload = Data(size, 7)};
}

TEST(VideoSink, AfterARefusalOnlyAKeyFrameIsOffered) {
  auto [client, host] = InMemoryConnection::makePair();
  host->setMaxInFlight(1);
  VideoSink sink(host);
  int requests = 0;
  sink.setKeyframeRequester([&] { ++requests; });
  // What was sent and dropped, whether a key frame is awaited, and how often one was asked for.
  const auto state = [&] {
    const auto s = sink.stats();
    return std::tuple(s.framesSent, s.framesDropped, s.waitingForKeyframe, requests);
  };
  sink.handle(encoded(true, 300), 4.0);
  EXPECT_EQ(std::tuple(sink.stats().bytesSent, sink.stats().lastLatencyMs), std::tuple(300, 4.0));
  sink.handle(encoded(false), 5.0);  // the client has not read: refused
  EXPECT_EQ(state(), std::tuple(1, 1, true, 1));
  host->setMaxInFlight(3);
  sink.handle(encoded(false), 5.0);  // room now, but undecodable behind the gap
  EXPECT_EQ(state(), std::tuple(1, 2, true, 1));
  sink.handle(encoded(true), 6.0);
  EXPECT_EQ(state(), std::tuple(2, 2, false, 1));
  EXPECT_EQ(client->videoFrames().count(), 2u);
  host->setMaxInFlight(2);
  sink.handle(encoded(true), 6.0);  // a refused key frame asks again
  EXPECT_EQ(state(), std::tuple(2, 3, true, 2));
}

}  // namespace
}  // namespace kelvaron::host
