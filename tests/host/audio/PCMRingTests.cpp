#include "host/audio/PCMRing.hpp"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace kelvaron::host {
namespace {

// A ring of 4 frames (a sample rate of 4 Hz keeps one second short): a frame lasts 250 ms.
constexpr std::uint64_t kFrameNs = 250'000'000;
constexpr std::uint64_t kAnchor = 1'000;

std::vector<float> stereoFrames(float first, int count) {
  std::vector<float> samples;
  for (int i = 0; i < count; ++i) {
    samples.push_back(first + static_cast<float>(i));
    samples.push_back(-(first + static_cast<float>(i)));
  }
  return samples;
}

TEST(PCMRing, KeepsTheNewestSoundAndStampsItByItsPositionInTheStream) {
  PCMRing ring(2, 4.0);
  EXPECT_FALSE(ring.drain()) << "an empty ring yields nothing";

  // Six frames into four: the two oldest are lost before they were ever held.
  ring.writeInterleaved(stereoFrames(0, 6), kAnchor);
  auto batch = ring.drain();
  ASSERT_TRUE(batch);
  EXPECT_EQ(batch->samples, stereoFrames(2, 4));
  EXPECT_EQ(batch->timeNs, kAnchor + 2 * kFrameNs);
  EXPECT_FALSE(ring.drain()) << "a drain right after a drain";

  // Three, then three more into a ring of four: the oldest is overwritten, and the batch starts
  // one frame later in the stream. The second write's own time does not matter, only the anchor.
  ring.writeInterleaved(stereoFrames(10, 3), 999'999);
  ring.writeInterleaved(stereoFrames(13, 3), 999'999);
  batch = ring.drain();
  ASSERT_TRUE(batch);
  EXPECT_EQ(batch->samples, stereoFrames(12, 4));
  EXPECT_EQ(batch->timeNs, kAnchor + (6 + 2) * kFrameNs);

  // Twelve frames in, the stream stands at 3 s. A source that stalled half a second fills its gap
  // with silence; a late wake within the tolerance does not.
  const std::uint64_t end = kAnchor + 12 * kFrameNs;
  ring.fillGapBefore(end + 2 * kFrameNs - 1, 2 * kFrameNs);
  EXPECT_FALSE(ring.drain());
  ring.fillGapBefore(end + 2 * kFrameNs, kFrameNs / 2);
  ring.writeInterleaved(stereoFrames(20, 1), 0);
  batch = ring.drain();
  ASSERT_TRUE(batch);
  EXPECT_EQ(batch->samples, (std::vector<float>{0, 0, 0, 0, 20, -20}));
  EXPECT_EQ(batch->timeNs, end);
}

TEST(PCMRing, TheFirstDrainIsAtTheAnchorAndWrapsCopyBothPiecesInOrder) {
  for (const bool planar : {false, true}) {
    SCOPED_TRACE(planar ? "planar" : "interleaved");
    PCMRing ring(2, 4.0);
    auto write = [&](float first, int count, std::uint64_t timeNs) {
      const auto interleaved = stereoFrames(first, count);
      if (!planar) return ring.writeInterleaved(interleaved, timeNs);
      std::vector<float> left, right;
      for (std::size_t i = 0; i < interleaved.size(); i += 2) {
        left.push_back(interleaved[i]);
        right.push_back(interleaved[i + 1]);
      }
      const std::array<const float*, 2> planes{left.data(), right.data()};
      ring.writePlanar(planes, static_cast<std::size_t>(count), timeNs);
    };
    write(0, 3, kAnchor);
    auto batch = ring.drain();
    ASSERT_TRUE(batch);
    EXPECT_EQ(batch->timeNs, kAnchor);
    // The head stands at frame 3: the next three frames wrap past the end of the storage.
    write(3, 3, 0);
    batch = ring.drain();
    ASSERT_TRUE(batch);
    EXPECT_EQ(batch->samples, stereoFrames(3, 3));
    EXPECT_EQ(batch->timeNs, kAnchor + 3 * kFrameNs);
  }
}

}  // namespace
}  // namespace kelvaron::host
