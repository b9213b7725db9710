#include "host/video/LibavEncoderFactory.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>

extern "C" {
#include <libavutil/log.h>
}

#include "kit/log/Logger.hpp"
#include "kit/media/CaptureClock.hpp"
#include "kit/media/CodecProfileNames.hpp"

namespace kelvaron::host {

namespace {

constexpr std::int64_t kProbeBitrate = 4000000;
constexpr auto kProbeTimeout = std::chrono::seconds(3);

// Bands of colour: content does not matter, only that the encoder has something to code.
PixelBufferRef probePicture() {
  auto picture = std::make_shared<PixelBuffer>();
  picture->width = 320;
  picture->height = 192;
  picture->stride = picture->width * 4;
  picture->bytes.resize(std::size_t(picture->stride) * std::size_t(picture->height));
  for (std::size_t i = 0; i < picture->bytes.size(); ++i) {
    picture->bytes[i] = std::uint8_t((i / 4 / 16) * 37 + (i % 4) * 80);
  }
  return picture;
}

}  // namespace

bool probe(const LibavBackend& backend, CodecProfile profile) {
  struct Result {
    std::mutex lock;
    std::condition_variable done;
    std::optional<bool> ok;
  };
  auto result = std::make_shared<Result>();
  auto settle = [result](bool ok) {
    {
      std::lock_guard guard(result->lock);
      if (result->ok) return;
      result->ok = ok;
    }
    result->done.notify_all();
  };
  LibavHEVCEncoder encoder(backend, profile, kProbeBitrate, [profile, settle](EncoderOutput out) {
    const auto* frame = std::get_if<encoderOutput::frame>(&out);
    settle(frame && frame->frame.profile == profile && frame->frame.isKeyframe &&
           !frame->frame.parameterSets.empty());
  });
  encoder.encode({probePicture(), 0, {0, 0, 1, 1}, monotonicRawNs()}, false, false);
  std::unique_lock guard(result->lock);
  result->done.wait_for(guard, kProbeTimeout, [&] { return result->ok.has_value(); });
  const bool ok = result->ok.value_or(false);
  guard.unlock();
  encoder.stop();
  return ok;
}

LibavEncoderFactory::LibavEncoderFactory(std::vector<LibavBackend> backends,
                                         std::vector<CodecProfile> profiles) {
  // Devices that are not there (no CUDA, no QSV) are expected here: libavcodec's own complaints
  // about them would only alarm; what the probe found is said once below.
  const int logLevel = av_log_get_level();
  av_log_set_level(AV_LOG_QUIET);
  std::string found;
  for (CodecProfile profile : profiles) {
    for (const LibavBackend& backend : backends) {
      if (!probe(backend, profile)) continue;
      found += std::string(found.empty() ? "" : ", ") + profileLabel(profile) + " by " +
               backend.codecName;
      supported_.emplace_back(profile, backend);
      break;
    }
  }
  av_log_set_level(logLevel);
  Logger("io.dovka.tovu.host", "encoder")
      .info("encoders: %s", found.empty() ? "none works" : found.c_str());
}

std::vector<LibavBackend> LibavEncoderFactory::defaultBackends() {
  auto backends = LibavBackend::hardware();
  backends.push_back(LibavBackend::libx265());
  return backends;
}

std::vector<CodecProfile> LibavEncoderFactory::supportedProfiles() const {
  std::vector<CodecProfile> profiles;
  for (const auto& entry : supported_) profiles.push_back(entry.first);
  return profiles;
}

const LibavBackend* LibavEncoderFactory::backendFor(CodecProfile profile) const {
  for (const auto& [p, backend] : supported_) {
    if (p == profile) return &backend;
  }
  return nullptr;
}

std::shared_ptr<VideoEncoder> LibavEncoderFactory::makeEncoder(
    CodecProfile profile, std::int64_t bitsPerSecond, EncoderOutputHandler output) const {
  // A profile that fell back mid-session needs `hevcMain`'s encoder, which every probe found.
  const LibavBackend* backend = backendFor(profile);
  return std::make_shared<LibavHEVCEncoder>(backend ? *backend : LibavBackend::libx265(), profile,
                                            bitsPerSecond, std::move(output));
}

}  // namespace kelvaron::host
