// The wire codec's throughput: video frames through the decoder as they arrive from a stream,
// their encoding, and small control messages. BM_Memcpy gives this machine's copy bandwidth for
// the same volume in the same run, the yardstick for the video decoder.

#include <benchmark/benchmark.h>

#include <cstring>

#include "kit/wire/WireCodec.hpp"
#include "kit/wire/WireDecoder.hpp"

namespace kelvaron {
namespace {

constexpr std::size_t kPayload = 1 << 20;
constexpr int kFramesPerStream = 16;

VideoFrame sampleFrame(std::uint64_t number) {
  VideoFrame f;
  f.displayID = 1;
  f.frameNumber = number;
  f.width = 2560;
  f.height = 1440;
  f.sourceRect = {0, 0, 1, 1};
  f.parameterSets = {Data(24, 0x40), Data(40, 0x42), Data(8, 0x44)};
  Data payload(kPayload);
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<std::uint8_t>(i * 7);
  f.payload = std::move(payload);
  return f;
}

// Copies as many bytes as a video stream below holds, one frame's size at a time, into one reused
// block: the least any decoder must do, which is to read its input once. This machine's copy
// bandwidth for that pattern is the yardstick for the video decoder, measured in the same run.
void BM_Memcpy(benchmark::State& state) {
  const std::size_t total = kPayload * kFramesPerStream;
  Data src(total, 1), dst(kPayload);
  for (auto _ : state) {
    for (std::size_t at = 0; at < total; at += kPayload) {
      std::memcpy(dst.data(), src.data() + at, kPayload);
      benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(total));
}
BENCHMARK(BM_Memcpy);

// A stream of 1 MiB video frames, appended in reads of `range(0)` bytes. With `range(1)` = 1 the
// reads run on across frame boundaries (a backlogged sender); with 0 each frame's last read ends
// with the frame (frames sent one at a time, as a paced encoder does).
void BM_DecodeVideoFrames(benchmark::State& state) {
  const auto readSize = static_cast<std::size_t>(state.range(0));
  const bool continuous = state.range(1) != 0;
  std::vector<Data> frames;
  for (int i = 0; i < kFramesPerStream; ++i)
    frames.push_back(WireCodec::encodeVideoFrame(sampleFrame(i)));
  Data stream;
  for (const Data& f : frames) stream.insert(stream.end(), f.begin(), f.end());

  WireDecoder decoder;
  auto feed = [&](std::span<const std::uint8_t> bytes) {
    for (std::size_t at = 0; at < bytes.size(); at += readSize) {
      decoder.append(bytes.subspan(at, std::min(readSize, bytes.size() - at)));
      while (auto frame = decoder.nextVideoFrame()) benchmark::DoNotOptimize(frame->payload.data());
    }
  };
  for (auto _ : state) {
    if (continuous) {
      feed(stream);
    } else {
      for (const Data& f : frames) feed(f);
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(stream.size()));
}
BENCHMARK(BM_DecodeVideoFrames)
    ->ArgNames({"read", "continuous"})
    ->Args({1350, 1})
    ->Args({65536, 1})
    ->Args({1350, 0})
    ->Args({65536, 0});

void BM_EncodeVideoFrame(benchmark::State& state) {
  const VideoFrame frame = sampleFrame(1);
  for (auto _ : state) benchmark::DoNotOptimize(WireCodec::encodeVideoFrame(frame).data());
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kPayload));
}
BENCHMARK(BM_EncodeVideoFrame);

std::vector<Message> controlMix() {
  return {msg::ping{123456789},
          msg::pointer{42, pointer::moveAbsolute{1, 640.5f, 360.25f}},
          msg::feedback{{60, 1, 3.5f, false}},
          msg::hostStatus{HostState::ok, std::nullopt},
          msg::key{{{0x04}, true, {0x02}}},
          msg::cursorState{7, 1, 100, 200, true, 3},
          msg::text{"hello, world"},
          msg::streamInfo{1, {0, 0, 1, 1}, 1920, 1080, CodecProfile::hevcMain}};
}

void BM_EncodeControlMessages(benchmark::State& state) {
  const auto messages = controlMix();
  for (auto _ : state) {
    for (const Message& m : messages) benchmark::DoNotOptimize(WireCodec::encodeMessage(m).data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(messages.size()));
}
BENCHMARK(BM_EncodeControlMessages);

void BM_DecodeControlMessages(benchmark::State& state) {
  const auto messages = controlMix();
  Data stream;
  for (int copy = 0; copy < 64; ++copy) {
    for (const Message& m : messages) {
      const Data bytes = WireCodec::encodeMessage(m);
      stream.insert(stream.end(), bytes.begin(), bytes.end());
    }
  }
  WireDecoder decoder;
  for (auto _ : state) {
    decoder.append(stream);
    while (auto m = decoder.nextMessage()) benchmark::DoNotOptimize(m->index());
  }
  state.SetItemsProcessed(state.iterations() * 64 * static_cast<std::int64_t>(messages.size()));
}
BENCHMARK(BM_DecodeControlMessages);

}  // namespace
}  // namespace kelvaron
