// libx265 through libavcodec, decoded back by the reference client's decoder.

#include "host/video/LibavHEVCEncoder.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <latch>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "client/VideoDecoder.hpp"
#include "host/video/LibavEncoderFactory.hpp"
#include "kit/media/CaptureClock.hpp"
#include "tests/support/DesktopPicture.hpp"
#include "tests/support/PictureFidelity.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

// What an encoder hands out, waited for with a deadline.
class Outputs {
 public:
  EncoderOutputHandler handler() {
    return [this](EncoderOutput output) {
      {
        std::lock_guard guard(lock_);
        items_.push_back(std::move(output));
      }
      ready_.notify_all();
    };
  }
  EncoderOutput next() {
    std::unique_lock guard(lock_);
    if (!ready_.wait_for(guard, std::chrono::seconds(10), [&] { return !items_.empty(); })) {
      throw std::runtime_error("the encoder handed out nothing");
    }
    auto item = std::move(items_.front());
    items_.pop_front();
    return item;
  }
  VideoFrame nextFrame() {
    auto output = next();
    if (auto* failed = std::get_if<encoderOutput::failed>(&output)) {
      throw std::runtime_error("encoder failed: " + failed->text);
    }
    return std::get<encoderOutput::frame>(output).frame;
  }

 private:
  std::mutex lock_;
  std::condition_variable ready_;
  std::deque<EncoderOutput> items_;
};

CapturedFrame captured(PixelBufferRef picture) {
  return {std::move(picture), 3, {0.25f, 0, 0.5f, 1}, monotonicRawNs()};
}

TEST(LibavHEVCEncoder, EncodesWhatTheDecoderShowsBack) {
  Outputs outputs;
  LibavHEVCEncoder encoder(LibavBackend::libx265(), CodecProfile::hevcMain, 16000000,
                           outputs.handler());
  client::VideoDecoder decoder;
  const auto first = desktopPicture(1280, 720);

  encoder.encode(captured(first), false, false);
  const VideoFrame key = outputs.nextFrame();
  EXPECT_TRUE(key.isKeyframe);  // every session starts with one
  EXPECT_EQ(key.parameterSets.size(), 3u);
  EXPECT_EQ(key.profile, CodecProfile::hevcMain);
  EXPECT_EQ(key.displayID, 3u);
  EXPECT_EQ(key.sourceRect, (NormalizedRect{0.25f, 0, 0.5f, 1}));
  EXPECT_EQ(key.frameNumber, 1u);
  const auto shown = decoder.decode(key);
  ASSERT_TRUE(shown);
  EXPECT_GE(psnr(*shown, *first), 35.0);

  // A changed picture is a delta frame without parameter sets, and decodes on top of the key.
  const auto moved = desktopPicture(1280, 720, 24);
  encoder.encode(captured(moved), false, false);
  const VideoFrame delta = outputs.nextFrame();
  EXPECT_FALSE(delta.isKeyframe);
  EXPECT_TRUE(delta.parameterSets.empty());
  const auto shownMoved = decoder.decode(delta);
  ASSERT_TRUE(shownMoved);
  const double inMotion = psnr(*shownMoved, *moved);
  EXPECT_GE(inMotion, 35.0);

  // At rest the same picture once more, at high quality: clearly sharper.
  encoder.encode(captured(moved), false, true);
  const auto sharpened = decoder.decode(outputs.nextFrame());
  ASSERT_TRUE(sharpened);
  EXPECT_GE(psnr(*sharpened, *moved), inMotion + 3) << "in motion " << inMotion;

  // A key frame when asked for, and only then.
  encoder.requestKeyframe();
  encoder.encode(captured(first), false, false);
  EXPECT_TRUE(outputs.nextFrame().isKeyframe);
  encoder.encode(captured(moved), false, false);
  EXPECT_FALSE(outputs.nextFrame().isKeyframe);

  // A new size is a new session, opened by a key frame with its own parameter sets.
  const auto small = desktopPicture(640, 360);
  encoder.encode(captured(small), false, false);
  const VideoFrame resized = outputs.nextFrame();
  EXPECT_TRUE(resized.isKeyframe);
  EXPECT_EQ(resized.width, 640u);
  EXPECT_EQ(resized.height, 360u);
  const auto shownSmall = decoder.decode(resized);
  ASSERT_TRUE(shownSmall);
  EXPECT_GE(psnr(*shownSmall, *small), 35.0);
}

TEST(LibavHEVCEncoder, OutputCheckTellsProfilesApart) {
  Outputs outputs;
  LibavHEVCEncoder main(LibavBackend::libx265(), CodecProfile::hevcMain, 4000000,
                        outputs.handler());
  main.encode(captured(desktopPicture(320, 192)), false, false);
  const VideoFrame key = outputs.nextFrame();
  std::vector<hevc::NALUnit> units;
  for (const auto& set : key.parameterSets) units.push_back(set.span());
  EXPECT_TRUE(matchesProfile(units, CodecProfile::hevcMain));
  EXPECT_FALSE(matchesProfile(units, CodecProfile::hevcMain10));
  EXPECT_FALSE(matchesProfile(units, CodecProfile::hevcMain444));
  EXPECT_FALSE(matchesProfile({}, CodecProfile::hevcMain));  // no parameter sets: no match

  LibavHEVCEncoder full(LibavBackend::libx265(), CodecProfile::hevcMain444, 4000000,
                        outputs.handler());
  full.encode(captured(desktopPicture(320, 192)), false, false);
  const VideoFrame fullKey = outputs.nextFrame();
  EXPECT_EQ(fullKey.profile, CodecProfile::hevcMain444);
  units.clear();
  for (const auto& set : fullKey.parameterSets) units.push_back(set.span());
  EXPECT_TRUE(matchesProfile(units, CodecProfile::hevcMain444));
  EXPECT_FALSE(matchesProfile(units, CodecProfile::hevcMain));
}

// BT.709 for every size: the encoder converts with it and the stream says so, and a decoder that
// follows the stream shows a solid colour as it was captured.
TEST(LibavHEVCEncoder, ConvertsWithBT709AndSaysSo) {
  Outputs outputs;
  LibavHEVCEncoder encoder(LibavBackend::libx265(), CodecProfile::hevcMain, 4000000,
                           outputs.handler());
  client::VideoDecoder decoder;
  constexpr std::uint8_t kRed = 220, kGreen = 40, kBlue = 80;
  for (const auto& [width, height] : {std::pair{1280, 720}, std::pair{320, 192}}) {
    SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
    auto picture = std::make_shared<PixelBuffer>(PixelBuffer{width, height, width * 4, {}});
    for (int i = 0; i < width * height; ++i) {
      picture->bytes.insert(picture->bytes.end(), {kBlue, kGreen, kRed, 255});
    }
    encoder.encode(captured(picture), false, false);
    const VideoFrame key = outputs.nextFrame();
    std::optional<hevc::ColourDescription> colour;
    for (const auto& set : key.parameterSets) {
      if (hevc::nalType(set.span()) == hevc::kSPS) colour = hevc::readColourDescription(set.span());
    }
    EXPECT_EQ(colour, (hevc::ColourDescription{1, 1, 1, false}));

    const auto shown = decoder.decode(key);
    ASSERT_TRUE(shown);
    const std::size_t middle =
        (std::size_t(height / 2) * std::size_t(width) + std::size_t(width / 2)) * 4;
    EXPECT_NEAR(shown->rgba[middle], kRed, 3);
    EXPECT_NEAR(shown->rgba[middle + 1], kGreen, 3);
    EXPECT_NEAR(shown->rgba[middle + 2], kBlue, 3);
  }
}

constexpr std::uint64_t kStreamStart = 5'000'000'000'000;  // any capture time
constexpr std::uint64_t kSecond = 1'000'000'000;

// A stream that never asks for a key frame still gets one two minutes of its time after the last.
TEST(LibavHEVCEncoder, SendsAKeyFrameAtLeastEveryTwoMinutes) {
  Outputs outputs;
  LibavHEVCEncoder encoder(LibavBackend::libx265(), CodecProfile::hevcMain, 4000000,
                           outputs.handler());
  const auto picture = desktopPicture(320, 192);
  std::vector<std::uint64_t> keyframeSeconds;
  for (const std::uint64_t second : {0, 30, 60, 90, 119, 120, 150, 239, 241}) {
    encoder.encode({picture, 0, {0, 0, 1, 1}, kStreamStart + second * kSecond}, false, false);
    if (outputs.nextFrame().isKeyframe) keyframeSeconds.push_back(second);
  }
  EXPECT_EQ(keyframeSeconds, (std::vector<std::uint64_t>{0, 120, 241}));
}

// Pictures of noise: every rate is spent on them, so what comes out measures the rate in force.
std::vector<PixelBufferRef> noisePictures(int count) {
  std::mt19937 random(7);
  std::vector<PixelBufferRef> pictures;
  for (int i = 0; i < count; ++i) {
    auto picture = std::make_shared<PixelBuffer>(PixelBuffer{320, 192, 320 * 4, {}});
    picture->bytes.resize(std::size_t(picture->stride) * 192);
    for (auto& byte : picture->bytes) byte = std::uint8_t(random());
    pictures.push_back(std::move(picture));
  }
  return pictures;
}

// A new rate is in force within a second of stream time, raised or cut. It takes a new codec
// session, which opens with a key frame, so a change within a second of the last key frame waits
// for that second: feedback cannot bring a storm of key frames.
TEST(LibavHEVCEncoder, FollowsANewBitRateWithinASecond) {
  constexpr std::int64_t kLow = 2000000, kHigh = 8000000;
  constexpr int kFramesPerSecond = 60;
  Outputs outputs;
  LibavHEVCEncoder encoder(LibavBackend::libx265(), CodecProfile::hevcMain, kLow,
                           outputs.handler());
  const auto pictures = noisePictures(4);
  std::vector<std::size_t> sizes;
  std::vector<std::size_t> keyframes;
  const auto encodeUntil = [&](std::size_t frames) {
    while (sizes.size() < frames) {
      const std::uint64_t time = kStreamStart + sizes.size() * kSecond / kFramesPerSecond;
      encoder.encode({pictures[sizes.size() % pictures.size()], 0, {0, 0, 1, 1}, time}, false,
                     false);
      const VideoFrame frame = outputs.nextFrame();
      if (frame.isKeyframe) keyframes.push_back(sizes.size());
      sizes.push_back(frame.payload.size());
    }
  };
  // What one second of frames from `first` on came to.
  const auto bitsPerSecond = [&](std::size_t first) {
    return 8 * double(std::accumulate(sizes.begin() + std::ptrdiff_t(first),
                                      sizes.begin() + std::ptrdiff_t(first) + kFramesPerSecond,
                                      std::size_t{0}));
  };

  encodeUntil(120);
  encoder.setBitrate(kHigh / 2);  // at once
  encodeUntil(130);
  encoder.setBitrate(kHigh);  // a second after the last key frame, at 180
  encodeUntil(300);
  encoder.setBitrate(kLow);  // at once
  encodeUntil(420);

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
  auto encoder = std::make_shared<LibavHEVCEncoder>(
      LibavBackend::libx265(), CodecProfile::hevcMain, 4000000,
      [&owner, &onlyOwnerLeft, life = std::move(handlerLife)](EncoderOutput) {
        onlyOwnerLeft.wait();
        owner.reset();
      });
  owner = encoder;
  encoder->encode(captured(desktopPicture(320, 192)), false, false);
  encoder.reset();
  onlyOwnerLeft.count_down();

  // The handler goes when the encoding thread has let go of everything.
  for (int i = 0; i < 1000 && !handlerAlive.expired(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(handlerAlive.expired());
}

TEST(LibavEncoderFactory, ProbeFindsWhatLibx265Produces) {
  const LibavEncoderFactory factory({LibavBackend::libx265()});
  const auto profiles = factory.supportedProfiles();
  EXPECT_NE(std::ranges::find(profiles, CodecProfile::hevcMain), profiles.end());
  EXPECT_NE(std::ranges::find(profiles, CodecProfile::hevcMain444), profiles.end());
  ASSERT_TRUE(factory.backendFor(CodecProfile::hevcMain));
  EXPECT_EQ(factory.backendFor(CodecProfile::hevcMain)->codecName, "libx265");

  // Hardware that does not answer here is skipped, not offered.
  const LibavEncoderFactory none({{"hevc_nvenc", {}}}, {CodecProfile::hevcMain});
  EXPECT_TRUE(none.supportedProfiles().empty());
}

}  // namespace
}  // namespace kelvaron::host
