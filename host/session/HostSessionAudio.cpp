#include "host/session/HostSession.hpp"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/post.hpp>
#include <asio/use_awaitable.hpp>

namespace kelvaron::host {
namespace {

constexpr const char* kTakenOver = "Another device is using the computer's audio";
constexpr const char* kPermissionMissing =
    "Allow Tovu Host to record the computer's sound on the sound server";

// Starts `pipeline`, on whatever executor runs it; the failure, or nothing.
asio::awaitable<std::optional<AudioCaptureError>> start(std::shared_ptr<AudioPipeline> pipeline) {
  try {
    pipeline->start();
  } catch (const AudioCaptureError& error) {
    co_return error;
  } catch (const std::exception& error) {
    co_return AudioCaptureError::failed(error.what());
  }
  co_return std::nullopt;
}

}  // namespace

void HostSession::setAudio(AudioMode mode) {
  if (!client_ || status_.phase == SessionStatus::Phase::ended) return;
  // While a start is under way the mode is already the new one and there is no pipeline yet.
  if (mode == audioMode_ && (mode == AudioMode::off || audioPipeline_)) return;
  const std::int64_t generation = ++audioGeneration_;
  stopAudioPipeline();
  audioMode_ = mode;
  if (mode == AudioMode::off) {
    env_.audioArbiter->release(audioOwnerID_);
    log_.info("audio off");
    connection_->send(msg::audioStatus{AudioStatus::off, std::nullopt});
    return;
  }
  env_.audioArbiter->acquire(audioOwnerID_, [weak = weak_from_this(), strand = strand_] {
    asio::post(strand, [weak] {
      if (const auto self = weak.lock()) self->audioTakenOver();
    });
  });
  // Not one of the session's cancellable tasks: a start under way must always come back here to
  // be kept or stopped.
  asio::co_spawn(
      strand_,
      [self = shared_from_this(), mode, generation] { return self->startAudio(mode, generation); },
      asio::detached);
}

asio::awaitable<void> HostSession::startAudio(AudioMode mode, std::int64_t generation) {
  auto pipeline = makeAudioPipeline(mode, generation);
  const Executor background = env_.background ? env_.background : strand_;
  const auto failure = co_await asio::co_spawn(background, start(pipeline), asio::use_awaitable);
  if (generation != audioGeneration_ || status_.phase == SessionStatus::Phase::ended) {
    pipeline->stop();
    co_return;
  }
  if (failure) {
    audioFailed(*failure);
    co_return;
  }
  audioPipeline_ = std::move(pipeline);
  log_.info("audio on mode=%u", unsigned(mode));
  connection_->send(msg::audioStatus{AudioStatus::playing, std::nullopt});
}

std::shared_ptr<AudioPipeline> HostSession::makeAudioPipeline(AudioMode mode,
                                                              std::int64_t generation) {
  // The sink's configuration and the capture's failure come from other threads: both hop to the
  // strand, and count only for the run they belong to.
  const auto onStrand = [weak = weak_from_this(), strand = strand_, generation](auto body) {
    asio::post(strand, [weak, generation, body = std::move(body)] {
      const auto self = weak.lock();
      if (self && self->audioGeneration_ == generation &&
          self->status_.phase != SessionStatus::Phase::ended) {
        body(*self);
      }
    });
  };
  AudioSink sink{[onStrand](const AudioStreamConfig& config) {
                   onStrand([config](HostSession& self) {
                     self.connection_->send(msg::audioConfig{config.sampleRate, config.channels,
                                                             config.codec, config.magicCookie});
                   });
                 },
                 [connection = connection_](const AudioPacket& packet) {
                   return connection->sendAudio(packet);
                 }};
  const auto onFailure = [onStrand](const std::string& text) {
    onStrand([text](HostSession& self) {
      if (self.audioPipeline_) self.audioFailed(AudioCaptureError::failed(text));
    });
  };
  return std::make_shared<AudioPipeline>(mode, env_.makeAudioCapture(), env_.audioEncoders,
                                         std::move(sink), onFailure);
}

void HostSession::audioFailed(const AudioCaptureError& failure) {
  stopAudioPipeline();
  audioMode_ = AudioMode::off;
  env_.audioArbiter->release(audioOwnerID_);
  log_.error("audio failed: %s", failure.what());
  const bool refused = failure.kind() == AudioCaptureError::Kind::permissionDenied;
  connection_->send(refused ? msg::audioStatus{AudioStatus::permissionMissing, kPermissionMissing}
                            : msg::audioStatus{AudioStatus::failed, failure.what()});
}

void HostSession::audioTakenOver() {
  if (!audioPipeline_) return;
  stopAudioPipeline();
  audioMode_ = AudioMode::off;
  // The arbiter is not released: the tap belongs to the other session already.
  log_.info("audio taken over by another session");
  connection_->send(msg::audioStatus{AudioStatus::off, kTakenOver});
}

void HostSession::stopAudioPipeline() {
  if (!audioPipeline_) return;
  audioPipeline_->stop();
  audioPipeline_.reset();
}

}  // namespace kelvaron::host
