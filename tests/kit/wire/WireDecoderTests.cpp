#include "kit/wire/WireDecoder.hpp"

#include <gtest/gtest.h>

#include "kit/wire/WireCodec.hpp"
#include "tests/kit/wire/WireTestSupport.hpp"

namespace kelvaron {
namespace {

using namespace test;

// A stream of several frames fed one byte at a time: each appears with its last byte, in order.
TEST(WireDecoder, AStreamFedOneByteAtATimeYieldsEachFrameWithItsLastByte) {
  const std::vector<Message> messages = {msg::hello{16, {}, "phone", {}}, msg::unfocus{},
                                         msg::clipboardText{"é"}, msg::ping{7}};
  WireDecoder decoder;
  std::vector<Message> decoded;
  for (const Message& message : messages) {
    const Data bytes = WireCodec::encodeMessage(message);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      decoder.append(std::span(bytes).subspan(i, 1));
      auto next = decoder.nextMessage();
      EXPECT_EQ(next.has_value(), i + 1 == bytes.size()) << "byte " << i;
      if (next) decoded.push_back(std::move(*next));
    }
  }
  EXPECT_EQ(decoded, messages);
  EXPECT_EQ(decoder.bufferedBytes(), 0u);
}

TEST(WireDecoder, AZeroLengthFrameIsTruncatedOnceAndTheStreamGoesOn) {
  WireDecoder decoder;
  decoder.append(u32(0));
  decoder.append(frame(13, {u64(9)}));
  EXPECT_EQ(decodeError(decoder).kind(), WireError::Kind::truncated);
  EXPECT_FALSE(decoder.poisoned());
  EXPECT_EQ(decoder.nextMessage(), Message(msg::ping{9}));
}

TEST(WireDecoder, ALengthAboveTheLimitPoisonsForGood) {
  WireDecoder decoder;
  decoder.append(Data{0x04, 0x00, 0x00, 0x01});
  for (int attempt = 0; attempt < 3; ++attempt) {
    const WireError e = decodeError(decoder);
    EXPECT_EQ(e.kind(), WireError::Kind::frameTooLarge);
    EXPECT_EQ(e.length(), 0x4000001u);
    EXPECT_STREQ(e.what(), "frameTooLarge(67108865)");
    decoder.append(frame(13, {u64(1)}));
  }
  EXPECT_EQ(decoder.poisoned(), WireError::frameTooLarge(0x4000001));
  EXPECT_THROW(decoder.decodeFrame(), WireError);
  EXPECT_EQ(decoder.bufferedBytes(), 0u);  // what follows is not kept

  // An untrusted peer's limit is lower.
  WireDecoder strict;
  strict.setMaxFrameLength(4096);
  strict.append(frame(13, {u64(1)}));
  EXPECT_EQ(strict.nextMessage(), Message(msg::ping{1}));
  strict.append(u32(4097));
  EXPECT_THROW(strict.nextMessage(), WireError);
}

TEST(WireDecoder, AFrameOfExactlyTheLimitDecodes) {
  // A 64 MiB video frame: the largest length a decoder accepts.
  VideoFrame big;
  const std::size_t overhead = 1 + 4 + 8 + 8 + 1 + 1 + 4 + 4 + 16 + 1 + 4;
  big.payload = Data(kMaxFrameLength - overhead, 0xAB);
  const Data bytes = WireCodec::encodeVideoFrame(big);
  ASSERT_EQ(bytes.size(), 4u + kMaxFrameLength);
  EXPECT_EQ(bytes[0], 0x04);
  WireDecoder decoder;
  decoder.append(std::span(bytes).first(bytes.size() / 2));
  EXPECT_FALSE(decoder.nextVideoFrame());
  decoder.append(std::span(bytes).subspan(bytes.size() / 2));
  auto decoded = decoder.nextVideoFrame();
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->payload.size(), big.payload.size());
  EXPECT_EQ(decoded->payload.data()[decoded->payload.size() - 1], 0xAB);
}

TEST(WireDecoder, ABadFrameCostsOnlyItself) {
  WireDecoder decoder;
  decoder.append(frame(13, {u64(1)}));
  decoder.append(frame(7, {u8(2)}));  // bool 2
  decoder.append(frame(36, {}));      // unassigned type
  decoder.append(frame(13, {u64(2)}));
  EXPECT_EQ(decoder.nextMessage(), Message(msg::ping{1}));
  EXPECT_THROW(decoder.nextMessage(), WireError);
  EXPECT_THROW(decoder.nextMessage(), WireError);
  EXPECT_EQ(decoder.nextMessage(), Message(msg::ping{2}));
  EXPECT_FALSE(decoder.nextMessage());
}

TEST(WireDecoder, ConsumedBytesAreCompactedOnlyPastTheThreshold) {
  WireDecoder decoder;
  const Data small = frame(13, {u64(1)});  // 13 bytes
  // 8,000 small frames, then a partial one: the buffer is never empty between frames.
  Data stream;
  for (int i = 0; i < 8000; ++i) stream.insert(stream.end(), small.begin(), small.end());
  stream.insert(stream.end(), small.begin(), small.begin() + 5);
  decoder.append(stream);
  std::size_t compactions = 0;
  std::size_t previousOffset = 0;
  for (int i = 0; i < 8000; ++i) {
    ASSERT_TRUE(decoder.nextMessage());
    if (decoder.offset() < previousOffset) {
      ++compactions;
      EXPECT_GT(previousOffset + small.size(), 65536u);
      EXPECT_GT(previousOffset + small.size(),
                (decoder.bufferedBytes() + previousOffset + small.size()) / 2);
    }
    previousOffset = decoder.offset();
  }
  EXPECT_EQ(compactions, 1u);  // 104,005 bytes: moved once, past 65,536 and past half
  EXPECT_EQ(decoder.bufferedBytes() - decoder.offset(), 5u);
  decoder.append(std::span(small).subspan(5));
  EXPECT_TRUE(decoder.nextMessage());
  EXPECT_EQ(decoder.bufferedBytes(), 0u);
}

TEST(WireDecoder, AHeldFrameSurvivesLaterReads) {
  WireDecoder decoder;
  const Data first = frame(128, {u32(1), u64(1), u64(1), u8(1), u8(0), u32(2), u32(2), f32(0),
                                 f32(0), f32(1), f32(1), u8(0), data({1, 2, 3})});
  decoder.append(first);
  decoder.append(std::span(first).first(6));  // the next frame has begun
  auto held = decoder.nextVideoFrame();
  ASSERT_TRUE(held);
  decoder.append(std::span(first).subspan(6));
  decoder.append(Data(100000, 0));  // grows and moves the receive buffer
  EXPECT_EQ(held->payload, SharedBytes(Data{1, 2, 3}));
  EXPECT_TRUE(decoder.nextVideoFrame());
}

}  // namespace
}  // namespace kelvaron
