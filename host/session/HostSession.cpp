#include "host/session/HostSession.hpp"

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/dispatch.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include "kit/media/CodecProfileNames.hpp"

namespace kelvaron::host {

namespace {

constexpr std::chrono::duration<double> kFarewellDelay{0.2};  // lets a last message leave
constexpr const char* kAssertionName = "Tovu remote session";
// The client shows these to a person.
const std::string kDeviceMismatch = "Device ID does not match the authenticated device.";
const std::string kNoCommonProfile = "No common video profile.";

std::string profileList(const std::vector<CodecProfile>& profiles) {
  std::string text = "[";
  for (CodecProfile p : profiles) {
    if (text.size() > 1) text += ", ";
    text += profileLabel(p);
  }
  return text + "]";
}

// 4:4:4 when both sides have it, else 4:2:0; the 10-bit profiles are never chosen.
std::optional<CodecProfile> chooseProfile(const std::vector<CodecProfile>& client,
                                          const std::vector<CodecProfile>& encoder) {
  auto both = [&](CodecProfile p) {
    return std::ranges::count(client, p) > 0 && std::ranges::count(encoder, p) > 0;
  };
  for (CodecProfile p : {CodecProfile::hevcMain444, CodecProfile::hevcMain}) {
    if (both(p)) return p;
  }
  return std::nullopt;
}

}  // namespace

std::shared_ptr<HostSession> HostSession::make(const Executor& executor,
                                               std::shared_ptr<Connection> connection,
                                               HostEnvironment env, std::shared_ptr<AuthGate> gate,
                                               std::optional<Data> fixedClientKey,
                                               StatusCallback onStatus) {
  return std::shared_ptr<HostSession>(
      new HostSession(executor, std::move(connection), std::move(env), std::move(gate),
                      std::move(fixedClientKey), std::move(onStatus)));
}

HostSession::HostSession(const Executor& executor, std::shared_ptr<Connection> connection,
                         HostEnvironment env, std::shared_ptr<AuthGate> gate,
                         std::optional<Data> fixedClientKey, StatusCallback onStatus)
    : strand_(makeStrand(executor)),
      connection_(std::move(connection)),
      env_(std::move(env)),
      onStatus_(std::move(onStatus)),
      authGate_(std::move(gate)),
      fixedClientKey_(std::move(fixedClientKey)) {}

void HostSession::onStrand(std::function<void(HostSession&)> body) {
  asio::dispatch(strand_, [self = shared_from_this(), body = std::move(body)] { body(*self); });
}

// ---- The run loop ----

// The public suspending operations are plain functions that hand back the awaitable of work spawned
// on the session's strand: whoever awaits them, from whatever executor, the work runs here.
asio::awaitable<void> HostSession::run() {
  return asio::co_spawn(
      strand_, [self = shared_from_this()] { return self->runOnStrand(); }, asio::use_awaitable);
}

asio::awaitable<void> HostSession::runOnStrand() {
  // A session ends when its messages end, and then always tears down: a cancellation only ends the
  // wait under way and is never thrown.
  co_await asio::this_coro::throw_if_cancelled(false);
  // What is on the clipboard before the client came is never sent.
  if (env_.pasteboard) clipboardMark_.exchange(env_.pasteboard->changeCount());
  log_.info("connection accepted");
  if (authGate_) co_await authGate_->start();
  // One message at a time: each takes effect before the next is looked at.
  while (auto message = co_await connection_->messages().next()) {
    if (authGate_ && co_await authGate_->handle(*message) == AuthGate::Verdict::consumed) continue;
    // After a rejection nothing more is taken: the connection is on its way out.
    if (status_.phase == SessionStatus::Phase::ended) continue;
    co_await handle(*message);
  }
  if (authGate_) co_await authGate_->connectionEnded();
  co_await teardown();
}

asio::awaitable<void> HostSession::handle(const Message& message) {
  if (const auto* hello = std::get_if<msg::hello>(&message)) {
    if (authGate_ && authGate_->authenticatedDeviceID() != hello->deviceID) {
      co_await rejectHello(kDeviceMismatch);
      co_return;
    }
    co_await handleHello(*hello);
    co_return;
  }
  if (!client_) {
    // Before `hello` only the choice of a session without video is kept; nothing is answered.
    if (const auto* video = std::get_if<msg::setVideoEnabled>(&message)) {
      videoEnabled_ = video->enabled;
    }
    co_return;
  }
  co_await dispatch(message);
}

asio::awaitable<void> HostSession::dispatch(const Message& message) {
  if (const auto* ping = std::get_if<msg::ping>(&message)) {
    connection_->send(msg::pong{ping->value});
  } else if (const auto* select = std::get_if<msg::selectDisplay>(&message)) {
    // Choosing a display leaves focus mode.
    const std::optional<std::string> none;
    co_await unfocus(none);
    co_await selectDisplay(select->displayID, std::nullopt);
  } else if (const auto* viewport = std::get_if<msg::viewport>(&message)) {
    co_await handleViewport(viewport->viewport);
  } else if (const auto* feedback = std::get_if<msg::feedback>(&message)) {
    handleFeedback(feedback->feedback);
  } else if (const auto* video = std::get_if<msg::setVideoEnabled>(&message)) {
    co_await setVideoEnabledFlag(video->enabled);
  } else if (const auto* key = std::get_if<msg::key>(&message)) {
    env_.injector->injectKey(inputOwner_, key->event);
  } else if (const auto* text = std::get_if<msg::text>(&message)) {
    env_.injector->injectText(inputOwner_, text->text);
  } else if (const auto* pointer = std::get_if<msg::pointer>(&message)) {
    co_await handlePointer(pointer->event, pointer->seq);
  } else if (const auto* audio = std::get_if<msg::setAudio>(&message)) {
    setAudio(audio->mode);
  } else if (const auto* shape = std::get_if<msg::requestCursorShape>(&message)) {
    sendCursorShape(shape->shapeID, true);
  } else if (const auto* clipboard = std::get_if<msg::clipboardText>(&message)) {
    co_await writeClipboard(clipboard->text);
  } else if (const auto* thumbnails = std::get_if<msg::setThumbnails>(&message)) {
    setThumbnails(thumbnails->enabled);
  } else if (const auto* focus = std::get_if<msg::focus>(&message)) {
    co_await handleFocus(*focus);
  } else if (std::holds_alternative<msg::unfocus>(message)) {
    const std::optional<std::string> none;
    co_await unfocus(none);
  } else if (std::holds_alternative<msg::focusBack>(message)) {
    co_await focusBack();
  } else if (const auto* updates = std::get_if<msg::setAppListUpdates>(&message)) {
    co_await setAppListUpdates(updates->enabled);
  } else if (const auto* activate = std::get_if<msg::activateApp>(&message)) {
    co_await activateApp(*activate);
  } else if (const auto* windows = std::get_if<msg::windowThumbnails>(&message)) {
    setWindowThumbnails(*windows);
  } else if (std::holds_alternative<msg::requestInstalledApps>(message)) {
    sendInstalledApps();
  } else if (const auto* icons = std::get_if<msg::requestAppIcons>(&message)) {
    sendAppIcons(icons->bundleIDs);
  } else if (const auto* launch = std::get_if<msg::launchApp>(&message)) {
    launchApp(*launch);
  } else if (const auto* control = std::get_if<msg::launchControl>(&message)) {
    co_await launchControl(*control);
  } else if (const auto* quit = std::get_if<msg::quitApp>(&message)) {
    co_await quitApp(quit->pid);
  } else if (const auto* watch = std::get_if<msg::watchActions>(&message)) {
    watchActions(watch->enabled);
  } else if (const auto* action = std::get_if<msg::performAction>(&message)) {
    co_await performAction(*action);
  } else if (const auto* offer = std::get_if<msg::fileOffer>(&message)) {
    fileReceiver().offer(offer->transferID, offer->files, offer->kind);
  } else if (const auto* chunk = std::get_if<msg::fileChunk>(&message)) {
    const auto write = [chunk](FileReceiver& receiver) {
      receiver.chunk(chunk->transferID, chunk->fileIndex, chunk->offset, chunk->data);
    };
    co_await withFileReceiver(write);
  } else if (const auto* end = std::get_if<msg::fileEnd>(&message)) {
    const auto finish = [id = end->transferID](FileReceiver& receiver) { receiver.end(id); };
    co_await withFileReceiver(finish);
  } else if (const auto* cancel = std::get_if<msg::fileCancel>(&message)) {
    // The device's cancel is not answered.
    if (fileReceiver_ && fileReceiver_->activeID() == cancel->transferID) fileReceiver_->abort();
  }
}

// ---- Negotiation ----
//
// GCC 12 mishandles temporaries that live across a suspension in the same full-expression, so the
// coroutines here await with named values only.

asio::awaitable<void> HostSession::handleHello(const msg::hello& hello) {
  if (client_) co_return;
  if (hello.version != kProtocolVersion) {
    const std::string reason = "Unsupported protocol version " + std::to_string(hello.version) +
                               "; this host speaks " + std::to_string(kProtocolVersion) + ".";
    co_await rejectHello(reason);
    co_return;
  }
  const auto& capabilities = hello.capabilities;
  const auto profile =
      chooseProfile(capabilities.decodableProfiles, env_.encoders->supportedProfiles());
  if (!profile) {
    co_await rejectHello(kNoCommonProfile);
    co_return;
  }
  client_ = capabilities;
  log_.info("hello from %s v%hu profiles=%s screen=%ux%u", hello.deviceName.c_str(), hello.version,
            profileList(capabilities.decodableProfiles).c_str(), capabilities.screenPixelWidth,
            capabilities.screenPixelHeight);
  log_.info("negotiated profile %s", profileLabel(*profile));
  status_.deviceName = hello.deviceName;
  status_.profile = profile;
  status_.targetBitrateMbps = double(bitrate_.bitrate) / 1000000;
  makeVideoStack(*profile);

  connection_->send(msg::helloAck{kProtocolVersion, env_.hostID, env_.hostName, *profile});
  helloAcked_ = true;
  sendRelayConfig();

  if (videoEnabled_ && !env_.screenRecordingGranted()) {
    captureProblem_ =
        HostStatusValue{HostState::permissionMissing, "Screen Recording permission is not granted"};
  }
  publishHostStatus(true);

  keepAwake_ = env_.keepDisplayAwake();
  updateKeepAwakeAssertion();

  const bool asleep = env_.isDisplayAsleep();
  env_.power->declareUserActivity();
  co_await env_.onWakeRequested(asleep);

  displays_ = co_await env_.displays->displays();
  connection_->send(msg::displayList{displays_});
  startBackgroundTasks();
  startTextFocus();
  if (displays_.empty()) {
    applyNote("No displays available");
    co_return;
  }
  co_await selectDisplay(mainOrFirst(displays_).id, std::nullopt);
}

asio::awaitable<void> HostSession::rejectHello(const std::string& reason) {
  connection_->send(msg::helloReject{reason});
  status_.note = reason;
  status_.phase = SessionStatus::Phase::ended;
  report();
  co_await env_.sleep(kFarewellDelay);
  connection_->close();
}

void HostSession::sendRelayConfig() {
  if (!helloAcked_) return;
  auto key = authGate_ ? authGate_->authenticatedPublicKey() : std::nullopt;
  if (!key) key = fixedClientKey_;
  if (!key) return;
  const auto provision = env_.relayConfig(key);
  if (!provision || provision->relays.empty()) return;
  connection_->send(msg::relayConfig{provision->relays, provision->grant});
}

// ---- Status ----

// What the computer's lifecycle says wins over what capture says, so a capture problem is hidden
// while the computer sleeps or is locked and shows again afterwards.
HostStatusValue HostSession::currentHostStatus() const {
  if (lifecycleState_.state != HostState::ok) return lifecycleState_;
  if (captureProblem_) return *captureProblem_;
  if (focusNotice_) return *focusNotice_;
  return {};
}

void HostSession::publishHostStatus(bool force) {
  if (!helloAcked_) return;
  const HostStatusValue current = currentHostStatus();
  if (!force && lastSentStatus_ == current) return;
  lastSentStatus_ = current;
  connection_->send(msg::hostStatus{current.state, current.detail});
}

void HostSession::setLifecycleState(HostState state, std::optional<std::string> detail) {
  onStrand([state, detail = std::move(detail)](HostSession& self) {
    self.lifecycleState_ = {state, detail};
    self.publishHostStatus(false);
  });
}

void HostSession::setNote(std::optional<std::string> text) {
  onStrand([text = std::move(text)](HostSession& self) { self.applyNote(text); });
}

void HostSession::applyNote(std::optional<std::string> text) {
  if (status_.note == text) return;
  log_.info("host note: %s", text ? text->c_str() : "(cleared)");
  status_.note = std::move(text);
  report();
}

void HostSession::report() const {
  if (onStatus_) onStatus_(status_);
}

// ---- Keeping the display awake ----

void HostSession::setKeepAwake(bool keepAwake) {
  onStrand([keepAwake](HostSession& self) {
    self.keepAwake_ = keepAwake;
    if (self.helloAcked_) self.updateKeepAwakeAssertion();
  });
}

void HostSession::relayConfigChanged() {
  onStrand([](HostSession& self) { self.sendRelayConfig(); });
}

void HostSession::updateKeepAwakeAssertion() {
  if (keepAwake_ && !assertionID_ && client_ && status_.phase != SessionStatus::Phase::ended) {
    assertionID_ = env_.power->takeDisplayAssertion(kAssertionName);
  } else if (!keepAwake_ && assertionID_) {
    env_.power->releaseAssertion(*assertionID_);
    assertionID_.reset();
  }
}

// ---- Background work ----

void HostSession::startBackgroundTasks() {
  // Background loops hold the session weakly: they never keep it alive.
  auto displayChanges = [](std::weak_ptr<HostSession> weak,
                           ChangeStream changes) -> asio::awaitable<void> {
    for (;;) {
      if (co_await isCancelled()) co_return;
      const auto signal = co_await changes->next();
      auto self = weak.lock();
      if (!signal || !self) co_return;
      co_await self->refreshDisplays();
    }
  };
  const auto every = [this](std::chrono::duration<double> interval,
                            asio::awaitable<void> (HostSession::*round)()) {
    tasks_.push_back(Task::spawn(strand_, periodic(weak_from_this(), env_.sleep, interval, round)));
  };
  tasks_.push_back(
      Task::spawn(strand_, displayChanges(weak_from_this(), env_.displays->changes())));
  every(env_.statsInterval, &HostSession::statisticsRound);
  if (env_.cursorSource) {
    // Also movements that do not come from the client, such as a local mouse.
    every(env_.cursorPollInterval, &HostSession::cursorPositionRound);
    every(env_.cursorShapePollInterval, &HostSession::cursorShapeRound);
  }
  if (env_.pasteboard) every(env_.clipboardPollInterval, &HostSession::clipboardRound);
}

asio::awaitable<void> HostSession::periodic(std::weak_ptr<HostSession> weak, Sleeper sleep,
                                            std::chrono::duration<double> interval,
                                            asio::awaitable<void> (HostSession::*round)()) {
  for (;;) {
    if (co_await isCancelled()) co_return;
    co_await sleep(interval);
    const auto self = weak.lock();
    if (!self) co_return;
    co_await (self.get()->*round)();
  }
}

asio::awaitable<void> HostSession::statisticsRound() {
  statsTick();
  co_return;
}

// ---- The end ----

asio::awaitable<void> HostSession::replaced(std::string byDeviceName) {
  return asio::co_spawn(
      strand_,
      [self = shared_from_this(), name = std::move(byDeviceName)] {
        return self->replacedOnStrand(name);
      },
      asio::use_awaitable);
}

void HostSession::closeConnection() {
  onStrand([](HostSession& self) { self.connection_->close(); });
}

asio::awaitable<void> HostSession::replacedOnStrand(std::string byDeviceName) {
  connection_->send(msg::sessionReplaced{std::move(byDeviceName)});
  co_await env_.sleep(kFarewellDelay);
  connection_->close();
}

asio::awaitable<void> HostSession::teardown() {
  if (assertionID_) {
    env_.power->releaseAssertion(*assertionID_);
    assertionID_.reset();
  }
  for (const Task& task : tasks_) task.cancel();
  tasks_.clear();
  stopTextFocus();
  if (thumbnailTask_) thumbnailTask_->cancel();
  thumbnailTask_.reset();
  // Every window this session resized goes back to its size.
  stopAppWork();
  ++focusEpoch_;
  focus_.reset();
  co_await restoreAllFits();
  scope_ = scope::display{};
  // No key or button of this session stays down once it is gone; what others hold stays.
  env_.injector->release(inputOwner_);
  if (pipeline_) pipeline_->stop();
  pipeline_.reset();
  co_await stopCapture();
  stopAudioPipeline();
  env_.audioArbiter->release(audioOwnerID_);
  // A transfer cut short leaves no folder behind.
  if (fileReceiver_) fileReceiver_->abort();
  connection_->close();
  status_.phase = SessionStatus::Phase::ended;
  log_.info("session ended");
  report();
}

}  // namespace kelvaron::host
