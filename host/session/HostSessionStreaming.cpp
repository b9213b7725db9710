// What is on screen at the client: which display, which part of it, at which size, whether capture
// runs at all; the video stack, the client's feedback and the per-second statistics.

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/post.hpp>
#include <asio/use_awaitable.hpp>
#include <utility>

#include "host/session/HostSession.hpp"
#include "kit/async/Uptime.hpp"
#include "kit/media/CodecProfileNames.hpp"

namespace kelvaron::host {

namespace {

const std::string kRemoteModeNote = "Remote mode (no video)";
const std::string kNoDisplaysNote = "No displays available";
constexpr double kFeedbackLogInterval = 5;  // seconds between lines of a quiet client

}  // namespace

const DisplayInfo& HostSession::mainOrFirst(const std::vector<DisplayInfo>& displays) {
  const auto main = std::ranges::find_if(displays, &DisplayInfo::isMain);
  return main != displays.end() ? *main : displays.front();
}

// ---- The video stack, built once at `hello` ----

void HostSession::makeVideoStack(CodecProfile profile) {
  sink_ = std::make_shared<VideoSink>(connection_);
  // Runs on the encoder's thread: frames go straight to the sink, so the session never delays
  // one; everything else is taken to the strand, and only there is the session looked up.
  auto output = [sink = sink_, strand = strand_, weak = weak_from_this()](EncoderOutput event) {
    if (const auto* encoded = std::get_if<encoderOutput::frame>(&event)) {
      sink->handle(encoded->frame, encoded->latencyMs);
      return;
    }
    asio::post(strand, [weak, event = std::move(event)] {
      if (auto self = weak.lock()) self->handleEncoderEvent(event);
    });
  };
  auto encoder = env_.encoders->makeEncoder(profile, bitrate_.bitrate, std::move(output));
  pipeline_ = VideoPipeline::make(strand_, std::move(encoder), env_.idleRefreshDelay);
  sink_->setKeyframeRequester([weak = std::weak_ptr(pipeline_)] {
    if (auto pipeline = weak.lock()) pipeline->requestKeyframe();
  });
}

void HostSession::handleEncoderEvent(const EncoderOutput& event) {
  if (const auto* fallback = std::get_if<encoderOutput::profileFallback>(&event)) {
    status_.profile = fallback->to;
    status_.note = std::string("Encoder fell back from ") + profileCaseName(fallback->requested) +
                   " to " + profileCaseName(fallback->to);
    log_.error("encoder fell back %s -> %s", profileLabel(fallback->requested),
               profileLabel(fallback->to));
    report();
    sendStreamInfo();
  } else if (const auto* failure = std::get_if<encoderOutput::failed>(&event)) {
    status_.note = "Encoder: " + failure->text;
    report();
  }
}

void HostSession::requestKeyframe() {
  if (pipeline_) pipeline_->requestKeyframe();
}

// ---- Choosing the source ----

asio::awaitable<void> HostSession::selectDisplay(std::uint32_t displayID,
                                                 std::optional<Viewport> viewport) {
  const auto found = std::ranges::find(displays_, displayID, &DisplayInfo::id);
  if (found == displays_.end() || !client_) co_return;  // a race with a display change
  const DisplayInfo display = *found;
  const Viewport chosen = viewport ? *viewport : defaultViewport(display, *client_);
  co_await applySource(display, chosen);
}

asio::awaitable<void> HostSession::handleViewport(const Viewport& viewport) {
  if (current_ && viewport.displayID == current_->id) {
    const DisplayInfo display = *current_;
    co_await applySource(display, viewport);
  } else {
    co_await selectDisplay(viewport.displayID, viewport);
  }
}

// The one place where the source changes. Capture runs only with video enabled and no hold; in
// every case the source is recorded, so that a later start shows what the client asked for.
asio::awaitable<void> HostSession::applySource(DisplayInfo display, Viewport viewport) {
  const bool sameDisplay = current_ && current_->id == display.id;
  current_ = display;
  viewport_ = viewport;
  const auto output = sourceGeometry(display, viewport, scope_).output;
  status_.displayName = display.name;
  status_.width = int(output.width);
  status_.height = int(output.height);

  if (!videoEnabled_ || captureHeld_) {
    if (!(videoEnabled_ && captureHeld_)) status_.phase = SessionStatus::Phase::streaming;
    report();
    co_return;
  }
  try {
    if (!captureStarted_) {
      const bool started = co_await startCapture(display, viewport);
      if (!started) co_return;
    } else if (capture_) {
      capture_->setScope(scope_);
      co_await capture_->update(display, viewport);
    }
  } catch (const std::exception& error) {
    captureFailed(error.what());
    co_return;
  }

  if (!sameDisplay) requestKeyframe();
  status_.captureError.reset();
  captureProblem_.reset();
  publishHostStatus(false);
  status_.phase = SessionStatus::Phase::streaming;
  if (!sameDisplay) {
    log_.info("display selected %s id=%u %ldx%ld", display.name.c_str(), display.id,
              long(output.width), long(output.height));
  }
  sendStreamInfo();
  report();
}

// False when nothing was started: the session has no video stack (any more), or a hold or the
// teardown stopped capture while it was starting.
asio::awaitable<bool> HostSession::startCapture(DisplayInfo display, Viewport viewport) {
  capture_ = env_.makeCapture();
  if (!pipeline_) co_return false;
  const auto source = capture_;
  source->setScope(scope_);
  const CaptureSource::FrameHandler onFrame = [pipeline = pipeline_](CapturedFrame frame) {
    pipeline->submit(frame);
  };
  const CaptureSource::StopHandler onStopped = [strand = strand_, weak = weak_from_this(),
                                                weakSource =
                                                    std::weak_ptr(source)](std::string reason) {
    asio::post(strand, [weak, weakSource, reason = std::move(reason)] {
      auto self = weak.lock();
      auto stopped = weakSource.lock();
      if (self && stopped) self->captureEnded(stopped, reason);
    });
  };
  co_await source->start(display, viewport, onFrame, onStopped);
  if (capture_ != source) {
    co_await source->stop();
    co_return false;
  }
  captureStarted_ = true;
  co_return true;
}

void HostSession::captureFailed(const std::string& text) {
  status_.captureError = text;
  log_.error("capture failed: %s", text.c_str());
  captureProblem_ = env_.screenRecordingGranted()
                        ? HostStatusValue{HostState::captureBlocked, text}
                        : HostStatusValue{HostState::permissionMissing,
                                          "Screen Recording permission is not granted"};
  publishHostStatus(false);
  report();
}

// A capture that ended by itself (its display server went away) is not restarted here: the next
// source the client applies starts a fresh one.
void HostSession::captureEnded(const std::shared_ptr<CaptureSource>& source,
                               const std::string& reason) {
  if (source != capture_) return;
  capture_.reset();
  captureStarted_ = false;
  asio::co_spawn(strand_, source->stop(), asio::detached);
  captureFailed(reason);
}

asio::awaitable<void> HostSession::stopCapture() {
  // Cleared first, so that whatever runs during the stop sees no capture.
  const auto source = std::exchange(capture_, nullptr);
  captureStarted_ = false;
  if (source) co_await source->stop();
}

void HostSession::sendStreamInfo() {
  if (!current_ || !viewport_ || !status_.profile) return;
  const auto output = sourceGeometry(*current_, *viewport_, scope_).output;
  connection_->send(msg::streamInfo{current_->id, normalizedRect(viewport_->sourceRect),
                                    output.width, output.height, *status_.profile});
}

// ---- Switching video off and holding capture ----

asio::awaitable<void> HostSession::setVideoEnabledFlag(bool value) {
  if (value == videoEnabled_) co_return;
  videoEnabled_ = value;
  log_.info("video %s", value ? "enabled" : "disabled");
  if (!value) {
    if (pipeline_) pipeline_->forgetRetainedFrame();
    co_await stopCapture();
    if (!status_.note) status_.note = kRemoteModeNote;
    report();
    co_return;
  }
  if (status_.note == kRemoteModeNote) status_.note.reset();
  if (client_ && current_ && viewport_) {
    const DisplayInfo display = *current_;
    const Viewport viewport = *viewport_;
    co_await applySource(display, viewport);
    requestKeyframe();
  } else {
    report();
  }
}

asio::awaitable<void> HostSession::suspendCapture(std::string reason) {
  return asio::co_spawn(
      strand_,
      [self = shared_from_this(), reason = std::move(reason)] {
        return self->suspendCaptureOnStrand(reason);
      },
      asio::use_awaitable);
}

asio::awaitable<void> HostSession::resumeCapture(bool restart) {
  return asio::co_spawn(
      strand_,
      [self = shared_from_this(), restart] { return self->resumeCaptureOnStrand(restart); },
      asio::use_awaitable);
}

// The pipeline keeps its retained frame, and `current` and `viewport` stay: the resume shows the
// same again.
asio::awaitable<void> HostSession::suspendCaptureOnStrand(std::string reason) {
  log_.info("capture suspended: %s", reason.c_str());
  captureHeld_ = true;
  co_await stopCapture();
  status_.note = reason;
  report();
}

asio::awaitable<void> HostSession::resumeCaptureOnStrand(bool restart) {
  captureHeld_ = false;
  // Held before anything was shown: the next `applySource` starts capture.
  if (!client_ || !current_ || !viewport_) co_return;
  if (restart) co_await stopCapture();
  // Across a sleep the displays may have changed.
  displays_ = co_await env_.displays->displays();
  connection_->send(msg::displayList{displays_});
  if (displays_.empty()) {
    status_.note = kNoDisplaysNote;
    report();
    co_return;
  }
  const auto same = std::ranges::find(displays_, current_->id, &DisplayInfo::id);
  const DisplayInfo display = same != displays_.end() ? *same : mainOrFirst(displays_);
  status_.note.reset();
  const Viewport viewport =
      display.id == current_->id ? *viewport_ : defaultViewport(display, *client_);
  co_await applySource(display, viewport);
  requestKeyframe();
  log_.info("capture resumed");
}

// ---- Display changes ----

asio::awaitable<void> HostSession::refreshDisplays() {
  auto list = co_await env_.displays->displays();
  if (list == displays_) co_return;
  displays_ = std::move(list);
  connection_->send(msg::displayList{displays_});
  if (!current_ || !client_) co_return;

  const auto same = std::ranges::find(displays_, current_->id, &DisplayInfo::id);
  if (same != displays_.end()) {
    if (same->pixelWidth == current_->pixelWidth && same->pixelHeight == current_->pixelHeight &&
        same->frame == current_->frame) {
      current_ = *same;  // only its name may differ
      co_return;
    }
  } else if (displays_.empty()) {
    co_return;  // unlike a resume, no note: the client keeps its last picture
  }
  // A display that changed size loses the client's own viewport.
  const DisplayInfo display = same != displays_.end() ? *same : mainOrFirst(displays_);
  const Viewport viewport = defaultViewport(display, *client_);
  co_await applySource(display, viewport);
}

// ---- Feedback and statistics ----

void HostSession::handleFeedback(const Feedback& feedback) {
  if (feedback.requestKeyframe) requestKeyframe();
  const double now = uptimeSeconds();
  if (feedback.framesDropped != 0 || feedback.requestKeyframe ||
      now - lastLoggedFeedback_ >= kFeedbackLogInterval) {
    lastLoggedFeedback_ = now;
    log_.info("feedback received=%u dropped=%u jitter=%.1fms keyframe=%s", feedback.framesReceived,
              feedback.framesDropped, double(feedback.jitterMs),
              feedback.requestKeyframe ? "true" : "false");
  }
  // A message that only asks for a key frame says nothing about the network.
  if (feedback.requestKeyframe && feedback.framesReceived == 0 && feedback.framesDropped == 0 &&
      feedback.jitterMs == 0) {
    return;
  }
  const auto changed = bitrate_.update(feedback, now);
  if (!changed) return;
  if (pipeline_) pipeline_->setBitrate(*changed);
  status_.targetBitrateMbps = double(*changed) / 1000000;
  report();
}

void HostSession::statsTick() {
  if (!sink_) return;
  const VideoSink::Stats stats = sink_->stats();
  const double now = uptimeSeconds();
  if (lastStats_ && lastStats_->time < now) {
    const double elapsed = now - lastStats_->time;
    status_.fps = double(stats.framesSent - lastStats_->frames) / elapsed;
    status_.bitrateMbps = double(stats.bytesSent - lastStats_->bytes) * 8 / elapsed / 1000000;
  }
  lastStats_ = StatsMark{now, stats.framesSent, stats.bytesSent};
  if (status_.fps > 0) {
    log_.info("sending %.1f fps %.1f Mbps dropped=%ld encodeLatency=%.1fms", status_.fps,
              status_.bitrateMbps, long(stats.framesDropped), stats.lastLatencyMs.value_or(0));
  }
  status_.framesSent = int(stats.framesSent);
  status_.framesDropped = int(stats.framesDropped);
  status_.encodeLatencyMs = stats.lastLatencyMs;
  report();  // every tick, even when idle: the application shows the counters
}

}  // namespace kelvaron::host
