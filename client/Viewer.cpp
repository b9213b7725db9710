#include "client/Viewer.hpp"

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>
#include <cmath>
#include <fstream>
#include <functional>
#include <ostream>

#include "client/Flow.hpp"
#include "client/LocalClipboard.hpp"
#include "kit/async/Task.hpp"
#include "kit/media/CaptureClock.hpp"
#include "kit/media/CodecProfileNames.hpp"
#include "kit/relay/RelayClientLink.hpp"
#include "kit/relay/RelaySigner.hpp"
#include "kit/wire/WireWriter.hpp"

namespace kelvaron::client {

Viewer::Viewer(std::shared_ptr<Connection> connection, ViewerOptions options, std::ostream& out,
               Clock::time_point since)
    : connection_(std::move(connection)),
      options_(std::move(options)),
      out_(out),
      since_(since),
      apps_(*connection_, options_.apps, out),
      actions_(*connection_, options_.actions, out),
      files_(*connection_, options_.files, out) {}

asio::awaitable<void> Viewer::run() {
  for (const auto& folder :
       {options_.saveCursor, options_.saveThumbnails, options_.apps.saveIcons}) {
    if (!folder.empty()) std::filesystem::create_directories(folder);
  }
  if (!options_.saveCursor.empty()) cursorLog_.open(options_.saveCursor / "cursor.log");
  const auto executor = co_await asio::this_coro::executor;
  // The readers keep the viewer alive: they may wake once more after it has closed.
  asio::co_spawn(
      executor, [self = shared_from_this()] { return self->readMessages(); }, asio::detached);
  asio::co_spawn(
      executor, [self = shared_from_this()] { return self->readVideo(); }, asio::detached);
  asio::co_spawn(
      executor, [self = shared_from_this()] { return self->readAudio(); }, asio::detached);
  if (options_.clipboard) {
    asio::co_spawn(
        executor, [self = shared_from_this()] { return self->mirrorClipboard(); }, asio::detached);
  }
  // A person's interrupt ends the visit as its time would, and cancels the files under way.
  asio::signal_set interrupts(executor, SIGINT, SIGTERM);
  interrupts.async_wait([self = shared_from_this()](const std::error_code& error, int) {
    if (error) return;
    self->files_.cancel();
    self->ended_ = true;
  });
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(options_.duration);
  const auto errandDone = [&] {
    return apps_.done() || actions_.done() || (options_.files.leaveWhenDone && files_.done());
  };
  int second = 0;
  while (Clock::now() < end && !ended_ && !errandDone()) {
    co_await sleepFor(std::chrono::seconds(1));
    endSecond(++second);
  }
  connection_->close();
  ended_ = true;
  leave();
}

asio::awaitable<void> Viewer::readMessages() {
  while (const auto message = co_await connection_->messages().next()) {
    if (apps_.handle(*message) || actions_.handle(*message) || files_.handle(*message)) continue;
    if (const auto* ack = std::get_if<msg::helloAck>(&*message)) {
      out_ << "Connected to " << ack->hostName << "; profile " << profileLabel(ack->profile)
           << std::endl;
      if (options_.audio) connection_->send(msg::setAudio{*options_.audio});
      if (!options_.saveThumbnails.empty()) connection_->send(msg::setThumbnails{true});
      apps_.greeted();
      actions_.greeted();
      sendFiles(co_await asio::this_coro::executor);
    } else if (const auto* mode = std::get_if<msg::streamMode>(&*message)) {
      streamMode(mode->info);
    } else if (const auto* reject = std::get_if<msg::helloReject>(&*message)) {
      refusal_ = reject->reason;
      ended_ = true;
    } else if (const auto* list = std::get_if<msg::displayList>(&*message)) {
      displays_ = list->displays;
    } else if (const auto* info = std::get_if<msg::streamInfo>(&*message)) {
      streamedDisplay_ = info->displayID;
      out_ << "Stream: display " << info->displayID << ", " << info->width << "x" << info->height
           << std::endl;
    } else if (const auto* status = std::get_if<msg::hostStatus>(&*message)) {
      if (status->detail) out_ << "Host status: " << *status->detail << std::endl;
    } else if (const auto* config = std::get_if<msg::audioConfig>(&*message)) {
      startAudio(*config);
    } else if (const auto* audio = std::get_if<msg::audioStatus>(&*message)) {
      showAudioStatus(*audio);
    } else if (const auto* state = std::get_if<msg::cursorState>(&*message)) {
      cursorState(*state);
    } else if (const auto* shape = std::get_if<msg::cursorShape>(&*message)) {
      cursorShape(*shape);
    } else if (const auto* picture = std::get_if<msg::thumbnail>(&*message)) {
      thumbnail(*picture);
    } else if (const auto* clipboard = std::get_if<msg::clipboardText>(&*message)) {
      clipboardFromHost(clipboard->text);
    } else if (const auto* focus = std::get_if<msg::textFocus>(&*message)) {
      textFocus(*focus);
    } else if (const auto* relay = std::get_if<msg::relayConfig>(&*message)) {
      if (onRelayConfig) onRelayConfig(*relay);
    } else if (const auto* replaced = std::get_if<msg::sessionReplaced>(&*message)) {
      out_ << "Replaced by " << replaced->byDeviceName << std::endl;
      ended_ = true;
    }
  }
  files_.connectionEnded();
  ended_ = true;
}

void Viewer::sendFiles(const Executor& executor) {
  const std::size_t count = options_.files.transfers.size();
  if (options_.files.atOnce) {
    for (std::size_t index = 0; index < count; ++index) {
      asio::co_spawn(
          executor, [self = shared_from_this(), index] { return self->files_.send(index); },
          asio::detached);
    }
    return;
  }
  const auto inTurn = [self = shared_from_this(), count]() -> asio::awaitable<void> {
    for (std::size_t index = 0; index < count; ++index) co_await self->files_.send(index);
  };
  asio::co_spawn(executor, inTurn, asio::detached);
}

asio::awaitable<void> Viewer::readVideo() {
  while (const auto frame = co_await connection_->videoFrames().next()) {
    if (const auto feedback = statistics_.received(frame->frameNumber, frame->payload.size())) {
      connection_->send(msg::feedback{*feedback});
    }
    const auto started = Clock::now();
    if (auto picture = decoder_.decode(*frame)) {
      const std::chrono::duration<double, std::milli> decoding = Clock::now() - started;
      show(std::move(*picture), *frame, decoding.count());
    }
  }
}

void Viewer::startAudio(const msg::audioConfig& config) {
  try {
    audioDecoder_.emplace(int(config.sampleRate), int(config.channels), config.magicCookie);
    audioOutput_ = options_.audioOut.empty()
                       ? openPulseAudioOutput(config.sampleRate, config.channels)
                       : std::make_unique<WAVFileOutput>(options_.audioOut, config.sampleRate,
                                                         config.channels);
    out_ << "Audio: " << config.sampleRate << " Hz, " << int(config.channels) << " channels"
         << std::endl;
  } catch (const std::exception& e) {
    audioDecoder_.reset();
    audioProblem_ = e.what();
    out_ << "Audio cannot be played: " << e.what() << std::endl;
  }
}

void Viewer::showAudioStatus(const msg::audioStatus& status) {
  static constexpr const char* kNames[] = {"off", "playing", "permission missing", "failed"};
  out_ << "Audio " << kNames[std::size_t(status.status)];
  if (status.detail) out_ << ": " << *status.detail;
  out_ << std::endl;
  if (status.status != AudioStatus::playing) {
    audioProblem_ = status.detail.value_or(kNames[std::size_t(status.status)]);
  }
}

asio::awaitable<void> Viewer::readAudio() {
  while (const auto packet = co_await connection_->audioPackets().next()) {
    audioStatistics_.received();
    if (!audioDecoder_) continue;
    const auto samples = audioDecoder_->decode(packet->data.span());
    if (!samples) {
      audioStatistics_.failedToDecode();
      continue;
    }
    audioOutput_->play(*samples);
    // Heard once what waits in the output before it has played.
    const double nowMs = double(monotonicRawNs()) / 1e6 + audioOutput_->delayMs();
    audioStatistics_.played(nowMs - double(packet->ptsMicros) / 1e3);
  }
}

void Viewer::cursorState(const msg::cursorState& state) {
  cursorStatistics_.position();
  if (options_.saveCursor.empty()) return;
  cursorLog_ << "state " << state.seq << " " << state.displayID << " " << state.x << " " << state.y
             << " " << (state.visible ? "visible" : "hidden") << " " << state.shapeID << std::endl;
}

void Viewer::cursorShape(const msg::cursorShape& shape) {
  cursorStatistics_.shape();
  if (options_.saveCursor.empty()) return;
  const auto file = options_.saveCursor / ("cursor-" + std::to_string(shape.shapeID) + ".png");
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(shape.png.data()), std::streamsize(shape.png.size()));
  cursorLog_ << "shape " << shape.shapeID << " " << shape.hotspotX << " " << shape.hotspotY << " "
             << shape.pointSize << std::endl;
}

void Viewer::thumbnail(const msg::thumbnail& picture) {
  ++thumbnails_;
  if (options_.saveThumbnails.empty()) return;
  const auto file = options_.saveThumbnails / ("display-" + std::to_string(picture.displayID) +
                                               "-" + std::to_string(thumbnails_) + ".jpg");
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(picture.jpeg.data()),
             std::streamsize(picture.jpeg.size()));
}

void Viewer::textFocus(const msg::textFocus& focus) {
  static constexpr const char* kKinds[] = {"none",   "field", "area",    "search",
                                           "secure", "web",   "terminal"};
  const auto kind = std::size_t(focus.kind);
  out_ << "textFocus: text=" << (focus.isText ? "yes" : "no")
       << " kind=" << (kind < std::size(kKinds) ? kKinds[kind] : "none")
       << " app=" << focus.bundleID << " byClick=" << (focus.byClick ? "yes" : "no") << std::endl;
}

void Viewer::streamMode(const StreamModeInfo& info) {
  if (const auto* focus = std::get_if<streammode::focus>(&info.mode)) {
    focused_ = true;
    out_ << "Stream mode: window " << focus->windowID << " of process " << focus->pid
         << (info.fitApplied ? ", fitted" : "");
  } else {
    focused_ = false;
    out_ << "Stream mode: desktop";
  }
  if (info.follow) {
    out_ << (info.follow->kind == FocusFollowInfo::Kind::popup ? "; popup of " : "; following ")
         << info.follow->appName << " \"" << info.follow->title << "\"";
  }
  if (info.notice) out_ << "; " << *info.notice;
  out_ << std::endl;
}

void Viewer::clipboardFromHost(const std::string& text) {
  out_ << "Clipboard from the host: " << text.size() << " bytes" << std::endl;
  if (!options_.clipboard) return;
  // On the clipboard thread, in order with its reads: what is written here is never sent back.
  asio::post(clipboardThread_, [self = shared_from_this(), text] {
    if (LocalClipboard::write(text)) self->lastLocalClipboard_ = text;
  });
}

asio::awaitable<void> Viewer::mirrorClipboard() {
  const auto worker = clipboardThread_.get_executor();
  // What was on this desktop's clipboard before connecting is never sent.
  co_await runOn(worker, [this] { return localClipboardChange(); });
  for (;;) {
    co_await sleepFor(std::chrono::milliseconds(500));
    // Checked before each hop: once the viewer leaves, its clipboard thread takes no more work.
    if (ended_) co_return;
    const auto text = co_await runOn(worker, [this] { return localClipboardChange(); });
    if (!text || ended_) continue;
    // The most a message carries; the writer would cut it the same way.
    const std::size_t sent = utf8PrefixLength(*text, kMaxStringBytes);
    out_ << "Clipboard to the host: " << sent << " bytes";
    if (sent < text->size()) out_ << " (the first of " << text->size() << ")";
    out_ << std::endl;
    connection_->send(msg::clipboardText{text->substr(0, sent)});
  }
}

std::optional<std::string> Viewer::localClipboardChange() {
  auto text = LocalClipboard::read();
  if (!text || text == lastLocalClipboard_) return std::nullopt;
  lastLocalClipboard_ = text;
  return text;
}

void Viewer::show(Picture picture, const VideoFrame& frame, double decodeMs) {
  // Host and client on one machine share the clock of the capture time.
  const auto sinceCaptureNs = std::int64_t(monotonicRawNs() - frame.captureTimeNs);
  statistics_.decoded(decodeMs, double(sinceCaptureNs) / 1e6);
  if (!latest_) {
    const std::chrono::duration<double, std::milli> waited = Clock::now() - since_;
    out_ << "First picture " << std::lround(waited.count()) << " ms after connecting" << std::endl;
  }
  latest_ = std::move(picture);
  // With a window asked for, the text goes to it: once the host streams it, it is in front.
  const bool ready = options_.apps.focus.empty() || focused_;
  if (ready && !clicked_ && options_.click) clickOnce();
  if (ready && !typed_ && !options_.type.empty()) {
    connection_->send(msg::text{options_.type});
    out_ << "Typed " << options_.type.size() << " characters" << std::endl;
    typed_ = true;
  }
}

// A tap, as the device makes one: the pointer put on the point, the left button pressed and let go.
void Viewer::clickOnce() {
  const auto display = std::ranges::find(displays_, streamedDisplay_, &DisplayInfo::id);
  if (display == displays_.end() || !(display->frame.width > 0 && display->frame.height > 0)) {
    return;
  }
  clicked_ = true;
  const auto x = float(options_.click->x) / display->frame.width;
  const auto y = float(options_.click->y) / display->frame.height;
  connection_->send(msg::pointer{++pointerSeq_, pointer::moveAbsolute{display->id, x, y}});
  for (const bool down : {true, false}) {
    connection_->send(msg::pointer{++pointerSeq_, pointer::button{PointerButton::left, down, 1}});
  }
  out_ << "Clicked at " << options_.click->x << "," << options_.click->y << std::endl;
}

void Viewer::endSecond(int second) {
  const SecondOfVideo figures = statistics_.endSecond();
  std::optional<SecondOfAudio> audio;
  if (options_.audio) audio = audioStatistics_.endSecond();
  out_ << statusLine(second, figures, audio, cursorStatistics_.endSecond()) << std::endl;
  connection_->send(msg::feedback{{figures.frames, 0, 0, false}});
  if (second % 5 == 0) connection_->send(msg::ping{std::uint64_t(second)});
}

void Viewer::leave() {
  // No clipboard work outlives the viewer's run, nor ends on that thread holding the viewer.
  clipboardThread_.join();
  const bool wantsPicture = !options_.saveFrame.empty();
  const bool saved = wantsPicture && latest_ && writePNG(options_.saveFrame, *latest_);
  if (saved) {
    out_ << "Saved the last picture (" << latest_->width << "x" << latest_->height << ") to "
         << options_.saveFrame.string() << std::endl;
  }
  out_ << statistics_.summary() << std::endl;
  audioOutput_.reset();  // a WAV file is complete from here
  if (options_.audio) out_ << audioStatistics_.summary() << std::endl;
  out_ << cursorStatistics_.summary() << std::endl;
  if (thumbnails_ > 0) out_ << "Received " << thumbnails_ << " thumbnails" << std::endl;
  if (refusal_) throw FlowError("refused: " + *refusal_);
  if (const auto failure = apps_.failure()) throw FlowError(*failure);
  if (const auto failure = actions_.failure()) throw FlowError(*failure);
  if (const auto failure = files_.failure()) throw FlowError(*failure);
  // An errand is done with or without a picture.
  if (statistics_.totalFrames() == 0 && !options_.apps.errand && !options_.actions.wanted() &&
      !options_.files.leaveWhenDone) {
    throw FlowError("the host sent no picture");
  }
  if (options_.audio && audioStatistics_.totalPackets() == 0) {
    throw FlowError("the host sent no sound" + (audioProblem_ ? ": " + *audioProblem_ : ""));
  }
  if (wantsPicture && !saved) throw FlowError("no picture to save");
}

namespace {

// The host through its relay: a link joined to its session, and QUIC over it to the host itself,
// whose certificate and proof are checked as on the local network.
asio::awaitable<std::shared_ptr<Connection>> dialThroughRelay(const ClientDevice& device,
                                                              const PairedHost& paired,
                                                              const ServerTrust& trust) {
  const auto config = device.relays.config(paired.hostID);
  if (!config) {
    throw FlowError("no relay is known for " + paired.name +
                    ": connect to it once on its network while its remote access is on");
  }
  const auto executor = co_await asio::this_coro::executor;
  const auto signer = std::make_shared<P256RelaySigner>(device.identity.privateKey);
  std::shared_ptr<RelayClientLink> link;
  try {
    auto opening = RelayClientLink::open(executor, config->relays, config->grant, signer,
                                         std::chrono::seconds(10));  // named: GCC 12
    link = co_await std::move(opening);
  } catch (const RelayLinkError& failure) {
    throw FlowError(failure.what());
  }
  const QUICConnection::Endpoint local(asio::ip::address_v4::loopback(), link->localPort());
  std::shared_ptr<Connection> inner;
  try {
    inner = co_await QUICConnection::connect(executor, local, trust);
  } catch (...) {
    link->close();
    throw;
  }
  co_return RelayedConnection::make(executor, inner, [link] { link->close(); });
}

// Keeps what the host offers for coming back through its relay, if it is for this device.
void keepRelayConfig(ClientDevice& device, const UUID& hostID, const msg::relayConfig& offer,
                     std::ostream& out) {
  const RelayConfig config{offer.relays, offer.grant};
  if (!config.isValidFor(device.identity.privateKey.publicKey())) {
    out << "The host's relay configuration is not valid here; not kept" << std::endl;
    return;
  }
  const auto stored = device.relays.config(hostID);
  device.relays.save(config, hostID);
  if (!stored || stored->relays != config.relays) {
    out << "Remote access: reachable through the relay at " << config.relays.front().host << ":"
        << config.relays.front().port << std::endl;
  }
}

}  // namespace

asio::awaitable<void> connect(ClientDevice& device, const HostDirectory& directory,
                              const std::string& host, const ViewerOptions& options,
                              std::ostream& out) {
  const auto paired = device.hosts.match(UUID::parse(host), host);
  if (!paired) throw FlowError("not paired with " + host + " (see tovu-client hosts)");
  const auto since = Viewer::Clock::now();
  const UUID hostID = paired->hostID;
  const HostDirectory::Filter wanted = [&device, hostID](const DiscoveredHost& h) {
    const auto known = device.hosts.match(h.hostID, h.name);
    return known && known->hostID == hostID;
  };
  const ServerTrust trust = ServerTrust::pinned(paired->fingerprint);
  std::shared_ptr<Connection> connection;
  if (!options.viaRelay) {
    try {
      connection = co_await directory.dial(wanted, trust);
    } catch (const std::exception& direct) {
      if (!device.relays.config(hostID)) throw;
      out << "Not reachable directly (" << direct.what() << "); through the relay" << std::endl;
    }
  }
  if (!connection) connection = co_await dialThroughRelay(device, *paired, trust);
  const auto purpose = ClientHandshake::Purpose::authenticate();
  const std::function<void(const std::string&)> noCode;
  co_await device.signIn(connection, purpose, std::chrono::seconds(10), noCode,
                         "the host did not let this device in");
  device.hosts.touch(hostID, WallClock::now());
  connection->send(device.hello());
  const auto viewer = std::make_shared<Viewer>(connection, options, out, since);
  viewer->onRelayConfig = [&device, hostID, &out](const msg::relayConfig& offer) {
    keepRelayConfig(device, hostID, offer, out);
  };
  co_await viewer->run();
}

}  // namespace kelvaron::client
