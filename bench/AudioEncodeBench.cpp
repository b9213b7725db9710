// What our AAC-ELD encoder costs per second of 48 kHz stereo sound, and how faithful it is, with
// libavcodec's own AAC-LC encoder ("aac", 128 kbit/s) on the same sound in the same run as the
// yardstick for both. Each iteration encodes the whole signal, fed in pieces of 10 ms as the
// sound server delivers them; `core_%` is the CPU time per second of sound. The quality figures
// come from one pass outside the timing, decoded by the client's decoder: the segmental SNR after
// aligning the two signals where they correlate best, and that lag.

#include <benchmark/benchmark.h>

#include <time.h>

#include <stdexcept>

#include "client/AudioDecoder.hpp"
#include "host/audio/AACELDEncoder.hpp"
#include "tests/support/AudioSignals.hpp"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kelvaron::host {
namespace {

constexpr double kSeconds = 10;
constexpr int kBitsPerSecond = 128000;

const std::vector<float>& signal(std::int64_t which) {
  static const std::vector<float> kSignals[] = {
      test::musicLike(kSeconds), test::speechLike(kSeconds), test::tonesInNoise(kSeconds)};
  return kSignals[which];
}

const char* signalName(std::int64_t which) {
  constexpr const char* kNames[] = {"music", "speech", "tones in noise"};
  return kNames[which];
}

// libavcodec's native AAC-LC encoder at 48 kHz stereo, fed interleaved float like ours.
class LibavAACEncoder {
 public:
  LibavAACEncoder() {
    const AVCodec* codec = avcodec_find_encoder_by_name("aac");
    context_ = codec ? avcodec_alloc_context3(codec) : nullptr;
    if (!context_) throw std::runtime_error("libavcodec has no aac encoder");
    context_->sample_rate = test::kStreamRate;
    context_->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context_->bit_rate = kBitsPerSecond;
    context_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    av_channel_layout_default(&context_->ch_layout, 2);
    if (avcodec_open2(context_, codec, nullptr) < 0) throw std::runtime_error("aac refused");
    frame_ = av_frame_alloc();
    packet_ = av_packet_alloc();
    frame_->nb_samples = context_->frame_size;
    frame_->format = context_->sample_fmt;
    av_channel_layout_copy(&frame_->ch_layout, &context_->ch_layout);
    av_frame_get_buffer(frame_, 0);
  }
  LibavAACEncoder(const LibavAACEncoder&) = delete;
  LibavAACEncoder& operator=(const LibavAACEncoder&) = delete;
  ~LibavAACEncoder() {
    av_packet_free(&packet_);
    av_frame_free(&frame_);
    avcodec_free_context(&context_);
  }

  Data magicCookie() const {
    return Data(context_->extradata, context_->extradata + context_->extradata_size);
  }

  std::vector<Data> encode(std::span<const float> interleaved) {
    pending_.insert(pending_.end(), interleaved.begin(), interleaved.end());
    const auto block = std::size_t(context_->frame_size) * 2;
    std::vector<Data> packets;
    std::size_t read = 0;
    for (; pending_.size() - read >= block; read += block) {
      av_frame_make_writable(frame_);
      for (int i = 0; i < context_->frame_size; ++i)
        for (int channel = 0; channel < 2; ++channel)
          reinterpret_cast<float*>(frame_->data[channel])[i] =
              pending_[read + std::size_t(i) * 2 + std::size_t(channel)];
      avcodec_send_frame(context_, frame_);
      while (avcodec_receive_packet(context_, packet_) == 0) {
        packets.emplace_back(packet_->data, packet_->data + packet_->size);
        av_packet_unref(packet_);
      }
    }
    pending_.erase(pending_.begin(), pending_.begin() + std::ptrdiff_t(read));
    return packets;
  }

 private:
  AVCodecContext* context_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
  std::vector<float> pending_;
};

Data magicCookieOf(const AACELDEncoder& encoder) { return encoder.config().magicCookie; }
Data magicCookieOf(const LibavAACEncoder& encoder) { return encoder.magicCookie(); }

template <typename Encoder>
std::vector<Data> encodeInPieces(Encoder& encoder, std::span<const float> input) {
  constexpr std::size_t kPiece = test::kStreamRate / 100 * 2;
  std::vector<Data> packets;
  for (std::size_t at = 0; at < input.size(); at += kPiece) {
    auto some = encoder.encode(input.subspan(at, std::min(kPiece, input.size() - at)));
    std::move(some.begin(), some.end(), std::back_inserter(packets));
  }
  return packets;
}

// The lag (0..4096 samples) at which `decoded` best matches `reference`, over one second.
std::size_t bestLag(std::span<const float> reference, std::span<const float> decoded) {
  constexpr std::size_t kFrom = test::kStreamRate, kLength = test::kStreamRate;
  std::size_t best = 0;
  double bestSum = -1e300;
  for (std::size_t lag = 0; lag <= 4096; ++lag) {
    double sum = 0;
    for (std::size_t i = kFrom; i < kFrom + kLength; ++i)
      sum += double(reference[i]) * decoded[i + lag];
    if (sum > bestSum) bestSum = sum, best = lag;
  }
  return best;
}

struct Quality {
  double kbps = 0;
  double segmentalSNR = 0;  // the mean of both channels
  std::size_t lag = 0;
};

Quality measure(const std::vector<Data>& packets, const Data& magicCookie,
                std::span<const float> input) {
  client::AudioDecoder decoder(test::kStreamRate, 2, magicCookie);
  std::vector<float> decoded;
  std::size_t bytes = 0;
  for (const Data& packet : packets) {
    bytes += packet.size();
    if (auto samples = decoder.decode(packet))
      decoded.insert(decoded.end(), samples->begin(), samples->end());
  }
  Quality quality;
  quality.kbps = double(bytes) * 8 / kSeconds / 1000;
  for (int channel = 0; channel < 2; ++channel) {
    const auto reference = test::channelOf(input, 2, channel);
    const auto output = test::channelOf(decoded, 2, channel);
    quality.lag = bestLag(reference, output);
    quality.segmentalSNR += test::segmentalSNR(reference, output, quality.lag) / 2;
  }
  return quality;
}

double threadCPUSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// Times `encoder` on the signal, then measures a fresh one's output.
template <typename Encoder, typename MakeEncoder>
void run(benchmark::State& state, MakeEncoder makeEncoder) {
  const auto& input = signal(state.range(0));
  Encoder encoder = makeEncoder();
  const double start = threadCPUSeconds();
  for (auto _ : state) benchmark::DoNotOptimize(encodeInPieces(encoder, input));
  const double cpuSeconds = threadCPUSeconds() - start;

  Encoder fresh = makeEncoder();
  const Quality quality = measure(encodeInPieces(fresh, input), magicCookieOf(fresh), input);
  state.SetLabel(signalName(state.range(0)));
  state.counters["core_%"] = 100 * cpuSeconds / (kSeconds * double(state.iterations()));
  state.counters["kbit/s"] = quality.kbps;
  state.counters["segSNR_dB"] = quality.segmentalSNR;
  state.counters["lag"] = double(quality.lag);
}

void BM_AACELD(benchmark::State& state) {
  run<AACELDEncoder>(state, [] { return AACELDEncoder(test::kStreamRate, 2); });
}
BENCHMARK(BM_AACELD)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

void BM_LibavAACLC(benchmark::State& state) {
  av_log_set_level(AV_LOG_ERROR);  // its statistics at closing are not ours to print
  run<LibavAACEncoder>(state, [] { return LibavAACEncoder(); });
}
BENCHMARK(BM_LibavAACLC)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kelvaron::host
