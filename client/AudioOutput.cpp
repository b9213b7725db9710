#include "client/AudioOutput.hpp"

#include <pulse/error.h>
#include <pulse/simple.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "client/Flow.hpp"

namespace kelvaron::client {
namespace {

// pa_simple blocks while the server's buffer is full, so it writes on a thread of its own; what
// waits for it is bounded, and the oldest sound goes first when a stall outlasts the bound.
class PulseAudioOutput : public AudioOutput {
 public:
  PulseAudioOutput(pa_simple* stream, std::uint32_t sampleRate, int channels)
      : stream_(stream),
        channels_(channels),
        sampleRate_(sampleRate),
        bound_(std::size_t(sampleRate) * std::size_t(channels) / 4),
        writer_([this] { writeLoop(); }) {}

  ~PulseAudioOutput() override {
    {
      std::lock_guard guard(lock_);
      stopping_ = true;
    }
    wake_.notify_one();
    writer_.join();
    pa_simple_free(stream_);
  }

  void play(std::span<const float> samples) override {
    {
      std::lock_guard guard(lock_);
      waiting_.insert(waiting_.end(), samples.begin(), samples.end());
      if (waiting_.size() > bound_) {
        waiting_.erase(waiting_.begin(),
                       waiting_.begin() + std::ptrdiff_t(waiting_.size() - bound_));
      }
    }
    wake_.notify_one();
  }

  double delayMs() const override {
    std::lock_guard guard(lock_);
    const double waitingMs = 1000.0 * double(waiting_.size()) / channels_ / sampleRate_;
    return waitingMs + double(serverLatencyUs_.load()) / 1000.0;
  }

 private:
  void writeLoop() {
    std::vector<float> chunk;
    for (;;) {
      {
        std::unique_lock guard(lock_);
        wake_.wait(guard, [&] { return stopping_ || !waiting_.empty(); });
        if (stopping_) return;
        chunk.assign(waiting_.begin(), waiting_.end());
        waiting_.clear();
      }
      int error = 0;
      if (pa_simple_write(stream_, chunk.data(), chunk.size() * sizeof(float), &error) < 0) return;
      serverLatencyUs_ = pa_simple_get_latency(stream_, &error);
    }
  }

  pa_simple* const stream_;
  const int channels_;
  const std::uint32_t sampleRate_;
  const std::size_t bound_;  // a quarter of a second
  mutable std::mutex lock_;
  std::condition_variable wake_;
  std::deque<float> waiting_;
  bool stopping_ = false;
  std::atomic<pa_usec_t> serverLatencyUs_{0};
  std::thread writer_;
};

void putLE(std::ofstream& out, std::uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.put(char((value >> (8 * i)) & 0xff));
}

}  // namespace

std::unique_ptr<AudioOutput> openPulseAudioOutput(std::uint32_t sampleRate, int channels) {
  const pa_sample_spec format{PA_SAMPLE_FLOAT32NE, sampleRate, std::uint8_t(channels)};
  // About 40 ms in the server: enough against the network's jitter, little added delay.
  const std::uint32_t target = std::uint32_t(pa_usec_to_bytes(40'000, &format));
  const std::uint32_t unset = std::numeric_limits<std::uint32_t>::max();
  const pa_buffer_attr attributes{unset, target, unset, unset, unset};
  int error = 0;
  pa_simple* stream = pa_simple_new(nullptr, "tovu-client", PA_STREAM_PLAYBACK, nullptr,
                                    "sound of the host", &format, nullptr, &attributes, &error);
  if (!stream) throw FlowError(std::string("cannot play sound: ") + pa_strerror(error));
  return std::make_unique<PulseAudioOutput>(stream, sampleRate, channels);
}

WAVFileOutput::WAVFileOutput(const std::filesystem::path& file, std::uint32_t sampleRate,
                             int channels)
    : out_(file, std::ios::binary | std::ios::trunc), sampleRate_(sampleRate), channels_(channels) {
  if (!out_) throw FlowError("cannot write " + file.string());
  writeHeader();
}

WAVFileOutput::~WAVFileOutput() {
  out_.seekp(0);
  writeHeader();
}

void WAVFileOutput::play(std::span<const float> samples) {
  for (const float sample : samples) {
    const float clipped = std::isfinite(sample) ? std::clamp(sample, -1.0f, 1.0f) : 0.0f;
    putLE(out_, std::uint32_t(std::uint16_t(std::int16_t(std::lrint(clipped * 32767.0f)))), 2);
  }
  dataBytes_ += std::uint32_t(samples.size() * 2);
}

void WAVFileOutput::writeHeader() {
  const std::uint32_t blockAlign = std::uint32_t(channels_) * 2;
  out_.write("RIFF", 4);
  putLE(out_, 36 + dataBytes_, 4);
  out_.write("WAVEfmt ", 8);
  putLE(out_, 16, 4);
  putLE(out_, 1, 2);  // PCM
  putLE(out_, std::uint32_t(channels_), 2);
  putLE(out_, sampleRate_, 4);
  putLE(out_, sampleRate_ * blockAlign, 4);
  putLE(out_, blockAlign, 2);
  putLE(out_, 16, 2);
  out_.write("data", 4);
  putLE(out_, dataBytes_, 4);
  out_.flush();
}

}  // namespace kelvaron::client
