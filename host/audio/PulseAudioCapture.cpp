#include "host/audio/PulseAudioCapture.hpp"

#include <pulse/stream.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <optional>
#include <thread>

#include "host/audio/PCMRing.hpp"
#include "host/audio/PhoneOnlyRouting.hpp"
#include "host/audio/PulseConnection.hpp"
#include "kit/log/Logger.hpp"

namespace kelvaron::host {

namespace {

const Logger& log() {
  static const Logger logger("io.dovka.tovu.host", "audio");
  return logger;
}

constexpr auto kDrainPeriod = std::chrono::milliseconds(10);
constexpr pa_usec_t kFragmentMicros = 10'000;
// An output that lowers its latency for the recording stops mixing for up to its old latency (a
// null sink's is 2 s): nothing arrives, and that stretch is silence on the stream's clock. A late
// wake of our own thread must stay well within this.
constexpr std::uint64_t kLongestUnnoticedStallNs = 100'000'000;

// The clock of the video frames' capture times (monotonic, never slewed), so that sound and
// picture stamped on one host line up.
std::uint64_t nowNs() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return std::uint64_t(now.tv_sec) * 1'000'000'000u + std::uint64_t(now.tv_nsec);
}

// When the first frame of the fragment in hand was recorded. A monitor hands over each fragment
// as soon as its output has mixed it, which is before anyone hears it: a fragment read on time was
// recorded now, and one read late is older by what arrived after it. (The server's own latency
// estimate goes stale exactly when it would matter, while the output stalls.)
std::uint64_t recordedAtNs(pa_stream* stream, std::size_t fragmentBytes) {
  const std::uint64_t now = nowNs();
  const std::size_t after = pa_stream_readable_size(stream) - fragmentBytes;
  const pa_usec_t late = pa_bytes_to_usec(after, pa_stream_get_sample_spec(stream));
  return now - std::min<std::uint64_t>(now, late * 1000);
}

PulseSink defaultOutput(PulseConnection& pulse) {
  const auto locked = pulse.lock();
  const auto sinks = pulse.sinks();
  const PulseSink* sink = findSink(sinks, pulse.defaultSinkName());
  if (!sink) throw AudioCaptureError::failed("Audio capture: no default output");
  return *sink;
}

void restoreLeftoversOn(PulseConnection& pulse, const std::filesystem::path& file) {
  try {
    PhoneOnlyRouting::restoreLeftovers(pulse, AudioRoutingFile(file));
  } catch (const AudioCaptureError& failure) {
    log().error("The sound routing of an earlier run was not put back: %s", failure.what());
  }
}

// A record stream of one source, whose samples the event thread copies into the ring.
class MonitorRecording {
 public:
  using EndedCallback = std::function<void(const std::string& text)>;

  // Throws AudioCaptureError.
  MonitorRecording(PulseConnection& pulse, const std::string& source, const AudioFormat& format,
                   PCMRing& ring, EndedCallback onEnded);
  ~MonitorRecording() {
    const auto locked = pulse_.lock();
    close();
  }
  MonitorRecording(const MonitorRecording&) = delete;
  MonitorRecording& operator=(const MonitorRecording&) = delete;

 private:
  static void readable(pa_stream* stream, std::size_t, void* self);
  static void stateChanged(pa_stream* stream, void* self);
  void close();

  PulseConnection& pulse_;
  PCMRing& ring_;
  const EndedCallback onEnded_;
  pa_stream* stream_ = nullptr;
  bool ready_ = false;
};

MonitorRecording::MonitorRecording(PulseConnection& pulse, const std::string& source,
                                   const AudioFormat& format, PCMRing& ring, EndedCallback onEnded)
    : pulse_(pulse), ring_(ring), onEnded_(std::move(onEnded)) {
  const auto locked = pulse_.lock();
  const pa_sample_spec samples{PA_SAMPLE_FLOAT32NE, static_cast<std::uint32_t>(format.sampleRate),
                               static_cast<std::uint8_t>(format.channels)};
  pa_channel_map channelMap;
  pa_channel_map_init_auto(&channelMap, samples.channels, PA_CHANNEL_MAP_DEFAULT);
  stream_ = pa_stream_new(pulse_.context(), "Computer sound for the phone", &samples, &channelMap);
  if (!stream_) throw pulse_.failure("recording the output");
  pa_stream_set_state_callback(stream_, &MonitorRecording::stateChanged, this);
  pa_stream_set_read_callback(stream_, &MonitorRecording::readable, this);
  const pa_buffer_attr buffer{
      .maxlength = UINT32_MAX,
      .tlength = UINT32_MAX,
      .prebuf = UINT32_MAX,
      .minreq = UINT32_MAX,
      .fragsize = static_cast<std::uint32_t>(pa_usec_to_bytes(kFragmentMicros, &samples))};
  // Should the output go away, the server must not move this stream elsewhere, which might be a
  // microphone: the capture ends instead.
  const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE);
  const bool connected =
      pa_stream_connect_record(stream_, source.c_str(), &buffer, flags) == 0 &&
      pulse_.waitUntil([this] { return pa_stream_get_state(stream_) != PA_STREAM_CREATING; });
  if (!connected || pa_stream_get_state(stream_) != PA_STREAM_READY) {
    const AudioCaptureError failure = pulse_.failure("recording the output");
    close();
    throw failure;
  }
  ready_ = true;
}

void MonitorRecording::close() {
  pa_stream_set_state_callback(stream_, nullptr, nullptr);
  pa_stream_set_read_callback(stream_, nullptr, nullptr);
  pa_stream_disconnect(stream_);
  pa_stream_unref(stream_);
}

// On the event thread: only copies, never waits.
void MonitorRecording::readable(pa_stream* stream, std::size_t, void* data) {
  auto& self = *static_cast<MonitorRecording*>(data);
  const void* bytes = nullptr;
  std::size_t size = 0;
  while (pa_stream_peek(stream, &bytes, &size) == 0 && size > 0) {
    const std::uint64_t recordedAt = recordedAtNs(stream, size);
    self.ring_.fillGapBefore(recordedAt, kLongestUnnoticedStallNs);
    // No bytes for a size is a hole in the stream.
    if (bytes) {
      self.ring_.writeInterleaved({static_cast<const float*>(bytes), size / sizeof(float)},
                                  recordedAt);
    } else {
      self.ring_.writeSilence(size / sizeof(float) / std::size_t(self.ring_.channels()),
                              recordedAt);
    }
    pa_stream_drop(stream);
  }
}

void MonitorRecording::stateChanged(pa_stream* stream, void* data) {
  auto& self = *static_cast<MonitorRecording*>(data);
  self.pulse_.signal();
  const pa_stream_state_t state = pa_stream_get_state(stream);
  if (!self.ready_ || PA_STREAM_IS_GOOD(state)) return;
  // When the whole connection ended, the connection says so.
  if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(self.pulse_.context()))) return;
  self.onEnded_("Audio capture: the output it recorded went away");
}

}  // namespace

// One running capture: the connection, the phone-only routing, the stream and the drain thread,
// made in this order and undone in the reverse one.
class PulseAudioCapture::Session {
 public:
  Session(const PulseAudioCaptureOptions& options, bool mute, SamplesCallback onSamples,
          FailureCallback onFailure);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const AudioFormat& format() const { return format_; }

 private:
  void fail(const std::string& text);
  void drainLoop();

  const SamplesCallback onSamples_;
  const FailureCallback onFailure_;
  std::mutex drainLock_;
  std::condition_variable wake_;
  bool stopping_ = false;               // guarded by drainLock_
  std::optional<std::string> failure_;  // guarded by drainLock_: the first one only
  PulseConnection pulse_;
  std::optional<PhoneOnlyRouting> routing_;
  AudioFormat format_;
  std::optional<PCMRing> ring_;
  std::optional<MonitorRecording> recording_;
  std::thread drainer_;
};

PulseAudioCapture::Session::Session(const PulseAudioCaptureOptions& options, bool mute,
                                    SamplesCallback onSamples, FailureCallback onFailure)
    : onSamples_(std::move(onSamples)),
      onFailure_(std::move(onFailure)),
      pulse_(options.server, [this](const std::string& reason) {
        fail("Audio capture: the sound server went away (" + reason + ")");
      }) {
  restoreLeftoversOn(pulse_, options.routingFile);
  if (mute) routing_.emplace(pulse_, AudioRoutingFile(options.routingFile));
  const PulseSink sink = routing_ ? routing_->sink() : defaultOutput(pulse_);
  format_ = {static_cast<double>(sink.samples.rate), std::min<int>(sink.samples.channels, 2)};
  ring_.emplace(format_.channels, format_.sampleRate);
  recording_.emplace(pulse_, sink.monitorSource, format_, *ring_,
                     [this](const std::string& text) { fail(text); });
  drainer_ = std::thread([this] { drainLoop(); });
}

PulseAudioCapture::Session::~Session() {
  {
    std::lock_guard guard(drainLock_);
    stopping_ = true;
  }
  wake_.notify_one();
  drainer_.join();
}

// From the event thread: the drain thread tells the owner, off the sound server's thread.
void PulseAudioCapture::Session::fail(const std::string& text) {
  {
    std::lock_guard guard(drainLock_);
    if (!failure_) failure_ = text;
  }
  wake_.notify_one();
}

void PulseAudioCapture::Session::drainLoop() {
  for (auto next = std::chrono::steady_clock::now() + kDrainPeriod;; next += kDrainPeriod) {
    std::unique_lock guard(drainLock_);
    if (wake_.wait_until(guard, next, [this] { return stopping_ || failure_; })) {
      if (stopping_) return;
      const std::string text = *failure_;
      guard.unlock();
      onFailure_(text);
      return;
    }
    guard.unlock();
    if (auto batch = ring_->drain()) onSamples_(batch->samples, batch->timeNs / 1000);
  }
}

PulseAudioCapture::PulseAudioCapture(PulseAudioCaptureOptions options)
    : options_(std::move(options)) {}

PulseAudioCapture::~PulseAudioCapture() { stop(); }

AudioFormat PulseAudioCapture::start(bool mute, SamplesCallback onSamples,
                                     FailureCallback onFailure) {
  std::lock_guard guard(lock_);
  session_.reset();
  session_ = std::make_unique<Session>(options_, mute, std::move(onSamples), std::move(onFailure));
  return session_->format();
}

void PulseAudioCapture::stop() {
  std::lock_guard guard(lock_);
  session_.reset();
}

void PulseAudioCapture::restoreLeftovers() {
  std::lock_guard guard(lock_);
  if (session_) return;
  try {
    PulseConnection pulse(options_.server, {});
    restoreLeftoversOn(pulse, options_.routingFile);
  } catch (const AudioCaptureError& failure) {
    log().info("No sound routing of an earlier run was looked for: %s", failure.what());
  }
}

}  // namespace kelvaron::host
