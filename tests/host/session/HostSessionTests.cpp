// A HostSession against an in-process client over real frames.

#include "host/session/HostSession.hpp"

#include <gtest/gtest.h>

#include <asio/detached.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

#include "client/VideoDecoder.hpp"
#include "host/video/LibavEncoderFactory.hpp"
#include "host/video/RandrDisplayManager.hpp"
#include "host/video/X11CaptureSource.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/DesktopPicture.hpp"
#include "tests/support/HostFakes.hpp"
#include "tests/support/ManualClock.hpp"
#include "tests/support/ScreenPainter.hpp"
#include "tests/support/TempDirectory.hpp"
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;
using enum CodecProfile;
using Phase = SessionStatus::Phase;

// Lets messages through once `deviceID` has signed in with `publicKey`, as a gate does.
struct FakeGate : AuthGate {
  std::optional<UUID> deviceID;
  std::optional<Data> publicKey;
  bool started = false, ended = false;
  asio::awaitable<void> start() override { co_return (void)(started = true); }
  asio::awaitable<Verdict> handle(const Message&) override {
    co_return deviceID ? Verdict::proceed : Verdict::consumed;
  }
  asio::awaitable<void> connectionEnded() override { co_return (void)(ended = true); }
  std::optional<UUID> authenticatedDeviceID() const override { return deviceID; }
  std::optional<Data> authenticatedPublicKey() const override { return publicKey; }
};

const UUID kDevice{{1, 2, 3}}, kHost{{9, 9, 9}};

msg::hello hello(std::vector<CodecProfile> profiles = {hevcMain}, std::uint16_t version = 16) {
  return {version, kDevice, "Ann's iPad", {std::move(profiles), 2048, 1536, 2, "iPad8,1", false}};
}

// Expects the next message to the client of `harness` to be `Case{...}`.
#define CO_EXPECT_MESSAGE(harness, Case, ...)                   \
  do {                                                          \
    const auto nextMessage = co_await (harness).expect<Case>(); \
    EXPECT_EQ(nextMessage, (Case{__VA_ARGS__}));                \
  } while (false)

struct Harness {
  explicit Harness(asio::io_context& context) : io(context) {
    std::tie(client, host) = InMemoryConnection::makePair();
    env.makeCapture = [all = captures] { return std::make_shared<FakeCapture>(all); };
  }

  void start(std::shared_ptr<AuthGate> gate = nullptr, std::optional<Data> key = std::nullopt) {
    // A session may outlive its test's body; what it calls back into outlives the harness too.
    session = HostSession::make(io.get_executor(), host, env, std::move(gate), std::move(key),
                                [log = reports](const SessionStatus& s) { log->push_back(s); });
    asio::co_spawn(io, session->run(), [done = ended](std::exception_ptr e) {
      *done = true;
      if (e) std::rethrow_exception(e);
    });
  }

  // The next message to the client, of type `Case`; fails the test if another or none comes.
  template <class Case>
  asio::awaitable<Case> expect() {
    const auto m = co_await nextWithin(client->messages(), 5s);
    if (!m) throw std::runtime_error("the session sent nothing");
    if (const auto* found = std::get_if<Case>(&*m)) co_return *found;
    throw std::runtime_error("unexpected message of type " + std::to_string(typeCode(*m)));
  }
  asio::awaitable<void> expectSilence(const char* what) {
    const auto m = co_await nextWithin(client->messages(), 300ms);
    EXPECT_FALSE(m) << what << ": answered with a message of type " << (m ? typeCode(*m) : 0);
  }

  // A session without a gate, hello, and its opening to the streamInfo of the main display.
  asio::awaitable<msg::streamInfo> open() {
    start();
    client->send(hello(clientProfiles));
    co_await skip<msg::helloAck, msg::hostStatus, msg::displayList>();
    co_return co_await expect<msg::streamInfo>();
  }
  // Takes the next messages, one of each type in order, without looking into them.
  template <class... Cases>
  asio::awaitable<void> skip() {
    ((void)co_await expect<Cases>(), ...);
  }
  // A new stream, then focus mode on it with no note.
  asio::awaitable<void> expectFocusMode(streammode::focus mode, bool fit, NormalizedRect surface,
                                        std::optional<FocusFollowInfo> follow = std::nullopt) {
    co_await expect<msg::streamInfo>();
    CO_EXPECT_MESSAGE(*this, msg::streamMode, {mode, fit, std::nullopt, surface, follow});
  }
  // Returns once the session has taken every message sent before.
  asio::awaitable<void> roundTrip() {
    client->send(msg::ping{77});
    CO_EXPECT_MESSAGE(*this, msg::pong, 77);
  }
  asio::awaitable<void> tick(std::chrono::duration<double> d) {
    clock->advance(d);
    co_await roundTrip();
  }

  // The session's timers wait for `clock`, which the test advances.
  void useManualClock() {
    env.sleep = [c = clock](std::chrono::duration<double> d) { return c->sleep(d); };
  }
  // `windows` in every window role; the computer's focus is followed at once.
  void useWindows() {
    useManualClock();
    env.apps = windows, env.windowControl = windows, env.windowTracker = windows;
    env.windowThumbnails = windows, env.focusObserver = windows;
    env.focusDebounce = env.followGrace = 0s;
  }

  const SessionStatus& lastReport() const { return reports->at(reports->size() - 1); }

  asio::awaitable<void> waitForEnd() {
    for (int i = 0; i < 500 && !*ended; ++i) co_await sleepFor(10ms);
    EXPECT_TRUE(*ended);
  }
  asio::awaitable<void> expectHangUp() {
    const auto more = co_await client->messages().next();
    EXPECT_EQ(more, std::nullopt);
    co_await waitForEnd();
  }

  asio::io_context& io;
  std::shared_ptr<InMemoryConnection> client, host;
  std::shared_ptr<FakeDisplays> displays = std::make_shared<FakeDisplays>();
  std::shared_ptr<FakeEncoders> encoders = std::make_shared<FakeEncoders>();
  std::shared_ptr<FakePower> power = std::make_shared<FakePower>();
  std::shared_ptr<FakeCaptures> captures = std::make_shared<FakeCaptures>();
  std::shared_ptr<FakeInjector> injector = std::make_shared<FakeInjector>();
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<FakeWindows> windows = std::make_shared<FakeWindows>();
  std::vector<CodecProfile> clientProfiles = {hevcMain};
  HostEnvironment env{.hostID = kHost,
                      .hostName = "studio",
                      .displays = displays,
                      .encoders = encoders,
                      .injector = injector,
                      .power = power};
  std::shared_ptr<HostSession> session;
  std::shared_ptr<std::vector<SessionStatus>> reports =
      std::make_shared<std::vector<SessionStatus>>();
  std::shared_ptr<bool> ended = std::make_shared<bool>(false);
};

void withHarness(const std::function<asio::awaitable<void>(Harness&)>& body) {
  runAsync([&body](asio::io_context& io) -> asio::awaitable<void> {
    Harness h(io);
    co_await body(h);
  });
}

// A test of the session: its body, a coroutine, is given a fresh harness `h`.
#define SESSION_TEST(name)                       \
  asio::awaitable<void> name(Harness& h);        \
  TEST(HostSession, name) { withHarness(name); } \
  asio::awaitable<void> name(Harness& h)

// The session takes only what the gate passes, and offers relays to the key signed in with.
SESSION_TEST(HelloOpensTheSessionWithItsFirstMessagesInOrderAndAReplacementEndsIt) {
  const RelayProvision offer{{{"relay.example", 443}}, {5}};
  h.env.relayConfig = [offer](const std::optional<Data>& key) {
    return key == Data{1} ? std::optional(offer) : std::nullopt;
  };
  auto gate = std::make_shared<FakeGate>();
  h.start(gate, Data{7});
  h.client->send(hello());
  co_await h.expectSilence("a hello before the device signed in");
  gate->deviceID = kDevice, gate->publicKey = Data{1};
  h.client->send(hello());
  CO_EXPECT_MESSAGE(h, msg::helloAck, 16, kHost, "studio", hevcMain);
  CO_EXPECT_MESSAGE(h, msg::relayConfig, offer.relays, offer.grant);
  CO_EXPECT_MESSAGE(h, msg::hostStatus, HostState::ok);
  CO_EXPECT_MESSAGE(h, msg::displayList, h.displays->list);
  // The main display, whole, at its own size: the client's screen is larger.
  CO_EXPECT_MESSAGE(h, msg::streamInfo, 1, {0, 0, 1, 1}, 1920, 1080, hevcMain);
  EXPECT_EQ(std::tuple(h.power->held.size(), h.power->activityDeclared), std::tuple(1u, 1));
  h.client->send(hello());
  co_await h.expectSilence("a second hello");

  co_await h.session->replaced("Bob's iPhone");
  CO_EXPECT_MESSAGE(h, msg::sessionReplaced, "Bob's iPhone");
  co_await h.expectHangUp();
  EXPECT_TRUE(gate->started && gate->ended);
  EXPECT_TRUE(h.power->held.empty() && h.encoders->made->stopped);
  EXPECT_EQ(h.captures->log, (std::vector<std::string>{"start 1 1920x1080", "stop"}));
  const SessionStatus& r = h.lastReport();
  EXPECT_EQ(std::tie(r.phase, r.displayName, r.width, r.deviceName, r.targetBitrateMbps, r.profile),
            std::tuple(Phase::ended, "DP-1", 1920, "Ann's iPad", 16.0, hevcMain));
}

// 10-bit profiles are never chosen; a refused hello gets a hang-up, and nothing behind it is read.
TEST(HostSession, HelloGetsTheBestCommonProfileOrIsRefused) {
  const std::string noProfile = "No common video profile.";
  const std::string otherDevice = "Device ID does not match the authenticated device.";
  const std::vector<
      std::tuple<std::vector<CodecProfile>, std::vector<CodecProfile>,
                 std::variant<CodecProfile, std::string>, std::uint16_t, std::optional<UUID>>>
      cases = {
          {{hevcMain, hevcMain444}, {hevcMain, hevcMain444}, hevcMain444, 16, {}},
          {{hevcMain, hevcMain444}, {hevcMain}, hevcMain, 16, {}},
          {{hevcMain444}, {hevcMain, hevcMain444, hevcMain44410}, hevcMain444, 16, {}},
          {{hevcMain10, hevcMain44410}, {hevcMain10, hevcMain44410}, noProfile, 16, {}},
          {{}, {hevcMain}, noProfile, 16, {}},
          {{hevcMain}, {hevcMain}, "Unsupported protocol version 15; this host speaks 16.", 15, {}},
          {{hevcMain}, {hevcMain}, otherDevice, 16, UUID{{4, 4}}},  // signed in as another
      };
  for (const auto& [client, encoder, outcome, version, signedIn] : cases) {
    withHarness([&](Harness& h) -> asio::awaitable<void> {
      h.encoders->profiles = encoder;
      auto gate = std::make_shared<FakeGate>();
      gate->deviceID = signedIn;
      h.start(signedIn ? gate : nullptr);
      h.client->send(hello(client, version));
      h.client->send(hello());
      if (const auto* profile = std::get_if<CodecProfile>(&outcome)) {
        CO_EXPECT_MESSAGE(h, msg::helloAck, 16, kHost, "studio", *profile);
        co_return;
      }
      const auto& reason = std::get<std::string>(outcome);
      CO_EXPECT_MESSAGE(h, msg::helloReject, reason);
      co_await h.expectHangUp();
      CO_ASSERT_TRUE(h.reports->size() == 2u);  // ended by the refusal, then by the teardown
      EXPECT_EQ(std::tie(h.reports->at(0).note, h.reports->at(0).phase),
                std::tuple(reason, Phase::ended));
      EXPECT_TRUE(h.captures->log.empty() && h.power->held.empty());
    });
  }
}

// Nothing is answered before hello; at hello, the keep-awake setting replaces the application's.
SESSION_TEST(BeforeHelloOnlyTheNoVideoChoiceIsKept) {
  h.env.screenRecordingGranted = [] { return false; };
  h.env.keepDisplayAwake = [] { return false; };
  h.displays->list.clear();
  h.start();
  h.session->setKeepAwake(true);
  h.client->send(msg::ping{1});
  h.client->send(msg::selectDisplay{1});
  co_await h.expectSilence("messages before hello");
  h.client->send(msg::setVideoEnabled{false});
  h.client->send(hello());
  co_await h.expect<msg::helloAck>();
  // Without video the missing capture permission is no problem of this session.
  CO_EXPECT_MESSAGE(h, msg::hostStatus, HostState::ok);
  // Without displays it waits, with a note.
  CO_EXPECT_MESSAGE(h, msg::displayList);
  co_await h.roundTrip();
  EXPECT_EQ(h.lastReport().note, "No displays available");
  EXPECT_EQ(h.lastReport().phase, Phase::negotiating);

  EXPECT_TRUE(h.power->held.empty());
  for (int twice = 0; twice < 2; ++twice) h.session->setKeepAwake(true);
  co_await h.roundTrip();
  EXPECT_EQ(h.power->held.size(), 1u);
  h.session->setKeepAwake(false);
  co_await h.roundTrip();
  EXPECT_TRUE(h.power->held.empty() && h.power->taken == 1);
}

SESSION_TEST(TheSourceFollowsTheClientAndTheDisplaysAndOutlivesVideoOffAndHolds) {
  h.displays->list.push_back({2, "HDMI-1", false, 2560, 1600, {1920, 0, 2560, 1600}});
  co_await h.open();
  h.displays->signal();
  co_await h.expectSilence("a change that changes nothing");
  // What the network sends is made usable: NaN, a rectangle sticking out, sides out of range.
  h.client->send(msg::viewport{{1, {NAN, 0.5f, 0.5f, 2}, 9000, 1001}});
  CO_EXPECT_MESSAGE(h, msg::streamInfo, 1, {0, 0.5f, 0.5f, 0.5f}, 8192, 1000, hevcMain);
  h.client->send(msg::selectDisplay{7});
  co_await h.expectSilence("an unknown display");
  h.client->send(msg::selectDisplay{2});
  // Scaled to the client's 2048x1536 screen, keeping the display's shape.
  CO_EXPECT_MESSAGE(h, msg::streamInfo, 2, {0, 0, 1, 1}, 2048, 1280, hevcMain);

  h.displays->list[1].name = "HDMI-1 (TV)";
  h.displays->signal();
  CO_EXPECT_MESSAGE(h, msg::displayList, h.displays->list);
  co_await h.expectSilence("a new name, after the list");
  // A new size throws the client's viewport away; a vanished display falls back to the main.
  h.displays->list[1] = {2, "HDMI-1", false, 1280, 720, {1920, 0, 1280, 720}};
  h.displays->signal();
  co_await h.expect<msg::displayList>();
  CO_EXPECT_MESSAGE(h, msg::streamInfo, 2, {0, 0, 1, 1}, 1280, 720, hevcMain);
  h.displays->list.pop_back();
  h.displays->signal();
  co_await h.expect<msg::displayList>();
  CO_EXPECT_MESSAGE(h, msg::streamInfo, 1, {0, 0, 1, 1}, 1920, 1080, hevcMain);

  // Each change of display asks for a key frame.
  EXPECT_EQ(h.encoders->made->keyframeRequests, 3);
  EXPECT_EQ(h.lastReport().displayName, "DP-1");

  h.displays->list.push_back({2, "HDMI-1", false, 1280, 720, {1920, 0, 1280, 720}});
  h.displays->signal();
  co_await h.expect<msg::displayList>();
  for (int twice = 0; twice < 2; ++twice) h.client->send(msg::setVideoEnabled{false});
  h.client->send(msg::viewport{{2, {0, 0, 0.5f, 0.5f}, 640, 360}});
  co_await h.expectSilence("a new source while video is off");
  EXPECT_EQ(h.lastReport().note, "Remote mode (no video)");
  EXPECT_EQ(h.lastReport().width, 640);
  h.client->send(msg::setVideoEnabled{true});
  CO_EXPECT_MESSAGE(h, msg::streamInfo, 2, {0, 0, 0.5f, 0.5f}, 640, 360, hevcMain);
  EXPECT_EQ(h.lastReport().note, std::nullopt);

  // A lock holds capture, and its note outlives video being switched off and on.
  co_await h.session->suspendCapture("Mac is locked");
  h.client->send(msg::setVideoEnabled{false});
  h.client->send(msg::setVideoEnabled{true});
  co_await h.expectSilence("video on during a hold");
  EXPECT_EQ(h.lastReport().note, "Mac is locked");
  // The display vanished during the hold: the resume shows the main display, whole.
  h.displays->list.pop_back();
  co_await h.session->resumeCapture(true);
  co_await h.expect<msg::displayList>();
  CO_EXPECT_MESSAGE(h, msg::streamInfo, 1, {0, 0, 1, 1}, 1920, 1080, hevcMain);
  EXPECT_EQ(h.lastReport().note, std::nullopt);
  // The source applies the geometry itself.
  EXPECT_EQ(h.captures->log, (std::vector<std::string>{
                                 "start 1 1920x1080", "update 1 9000x1001", "update 2 2048x1280",
                                 "update 2 1280x720", "update 1 1920x1080", "stop",
                                 "start 2 640x360", "stop", "start 1 1920x1080"}));
}

// Each state is said once; after a capture failed or ended, the next selection starts a fresh one.
SESSION_TEST(CaptureProblemsAreToldUnlessTheLifecycleHidesThemAndTheSessionGoesOn) {
  bool granted = false;
  h.env.screenRecordingGranted = [&granted] { return granted; };
  h.captures->failure = "denied";  // without the permission, capture fails
  h.start();
  h.session->setLifecycleState(HostState::locked, "ignored before hello");
  h.session->setLifecycleState(HostState::ok, std::nullopt);
  h.client->send(hello());
  co_await h.expect<msg::helloAck>();
  const msg::hostStatus permission{HostState::permissionMissing,
                                   "Screen Recording permission is not granted"};
  CO_EXPECT_MESSAGE(h, msg::hostStatus, permission);
  co_await h.expect<msg::displayList>();
  h.session->setLifecycleState(HostState::locked, "Mac is locked");
  CO_EXPECT_MESSAGE(h, msg::hostStatus, HostState::locked, "Mac is locked");
  h.session->setLifecycleState(HostState::locked, "Mac is locked");
  co_await h.expectSilence("the same state again");
  h.session->setLifecycleState(HostState::ok, std::nullopt);
  CO_EXPECT_MESSAGE(h, msg::hostStatus, permission);

  granted = true;
  const std::string unavailable = "Display 1 is not available for capture.";
  h.captures->failure = unavailable;
  h.client->send(msg::selectDisplay{1});
  CO_EXPECT_MESSAGE(h, msg::hostStatus, HostState::captureBlocked, unavailable);
  EXPECT_EQ(h.lastReport().captureError, unavailable);
  EXPECT_EQ(h.lastReport().phase, Phase::negotiating);
  h.captures->failure.reset();
  h.client->send(msg::selectDisplay{1});
  CO_EXPECT_MESSAGE(h, msg::hostStatus, HostState::ok);
  co_await h.expect<msg::streamInfo>();
  EXPECT_EQ(h.lastReport().captureError, std::nullopt);
  h.captures->endLast("The X server went away.");
  CO_EXPECT_MESSAGE(h, msg::hostStatus, HostState::captureBlocked, "The X server went away.");
  h.client->send(msg::selectDisplay{1});
  co_await h.skip<msg::hostStatus, msg::streamInfo>();
  EXPECT_EQ(h.captures->log,
            (std::vector<std::string>{"start 1 1920x1080", "stop", "start 1 1920x1080"}));
}

SESSION_TEST(FeedbackSteersTheRateInputReachesTheInjectorAndTheEndLeavesNothingBehind) {
  h.useManualClock();
  bool asleep = false;
  std::vector<bool> wakeRequests;
  h.env.isDisplayAsleep = [&asleep] { return asleep; };
  h.env.onWakeRequested = [&](bool displayAsleep) -> asio::awaitable<void> {
    co_return wakeRequests.push_back(displayAsleep);
  };
  h.clientProfiles = {hevcMain, hevcMain444};
  co_await h.open();
  FakeEncoder& encoder = *h.encoders->made;
  // A request for a key frame alone says nothing about the network; a drop cuts the rate.
  h.client->send(msg::feedback{{0, 0, 0, true}});
  co_await h.roundTrip();
  EXPECT_TRUE(encoder.bitrates.empty());
  h.client->send(msg::feedback{{58, 2, 4, false}});
  co_await h.roundTrip();
  EXPECT_EQ(encoder.bitrates, std::vector<std::int64_t>{11200000});
  EXPECT_EQ(h.lastReport().targetBitrateMbps, 11.2);
  EXPECT_EQ(encoder.keyframeRequests, 2);  // the first picture's and the client's

  // Frames go straight from the encoder to the client; the statistics count them at their tick.
  const VideoFrame frame{
      .displayID = 1, .isKeyframe = true, .payload = SharedBytes(Data{0, 0, 0, 1, 0x26})};
  encoder.output(encoderOutput::frame{frame, 12.5});
  const auto received = co_await nextWithin(h.client->videoFrames(), 5s);
  EXPECT_EQ(received, frame);
  EXPECT_EQ(h.lastReport().framesSent, 0);
  co_await h.tick(1s);
  EXPECT_EQ(h.lastReport().framesSent, 1);
  EXPECT_EQ(h.lastReport().encodeLatencyMs, 12.5);

  // The encoder's own news, from its thread, reaches the application and the client.
  encoder.output(encoderOutput::profileFallback{hevcMain444, hevcMain});
  CO_EXPECT_MESSAGE(h, msg::streamInfo, 1, {0, 0, 1, 1}, 1920, 1080, hevcMain);
  EXPECT_EQ(h.lastReport().note, "Encoder fell back from hevcMain444 to hevcMain");
  encoder.output(encoderOutput::failed{"session lost"});
  co_await h.roundTrip();
  EXPECT_EQ(h.lastReport().note, "Encoder: session lost");

  asleep = true;
  // Declaring activity may wake the display before the wake request is made: it is made anyway.
  h.power->onActivity = [&asleep] { asleep = false; };
  const KeyEvent key{{0x04}, true, {0x01}};
  h.client->send(msg::key{key});
  h.client->send(msg::text{"Grüße"});
  // Absolute moves go onto the display they name, or nowhere; a move wakes a sleeping display.
  h.client->send(msg::pointer{1, pointer::moveAbsolute{1, 0.5f, 0.5f}});
  h.client->send(msg::pointer{2, pointer::moveAbsolute{99, 0.5f, 0.5f}});
  h.client->send(msg::pointer{3, pointer::moveRelative{3, 4}});
  h.client->send(msg::pointer{4, pointer::button{PointerButton::left, true, 1}});
  co_await h.roundTrip();
  EXPECT_EQ(h.injector->keys, std::vector<KeyEvent>{key});
  EXPECT_EQ(h.injector->texts, std::vector<std::string>{"Grüße"});
  CO_ASSERT_TRUE(h.injector->pointer.size() == 4u);
  EXPECT_EQ(h.injector->pointer[0].second, h.displays->list[0]);
  EXPECT_EQ(h.injector->pointer[1].second, std::nullopt);
  EXPECT_EQ(wakeRequests, (std::vector<bool>{false, true}));  // at hello, and for the move
  EXPECT_EQ(h.power->activityDeclared, 2);                    // at hello, and for the input
  EXPECT_EQ(h.env.clicks->last().value_or(ClickRecord::Click{}).point, (Point{12, 34}));

  // A stranger dropping before hello takes nothing, and lets go of nothing of the other session.
  Harness stranger(h.io);
  stranger.env.injector = h.injector;
  stranger.start(std::make_shared<FakeGate>());
  stranger.client->close();
  co_await stranger.waitForEnd();
  EXPECT_EQ(h.injector->held.size(), 1u);
  EXPECT_EQ(std::tuple(stranger.reports->size(), stranger.lastReport().phase, stranger.power->taken,
                       stranger.displays->liveSubscribers()),
            std::tuple(1u, Phase::ended, 0, 0u));

  // Let go of mid-run, the session lives until its client vanishes, then leaves nothing held.
  const std::weak_ptr<HostSession> session = h.session;
  const std::weak_ptr<Connection> hostEnd = h.host;
  h.session.reset(), h.host.reset();
  co_await sleepFor(20ms);
  EXPECT_FALSE(session.expired());
  h.client.reset();
  co_await h.waitForEnd();
  co_await sleepFor(20ms);
  EXPECT_TRUE(session.expired() && hostEnd.expired());
  EXPECT_EQ(h.displays->liveSubscribers(), 0u);
  EXPECT_TRUE(h.power->held.empty() && h.injector->held.empty());
}

// A capture that the test feeds; its start waits while `hold` is set, like a slow sound server.
struct FakeAudioCapture : AudioCapturing {
  std::optional<AudioCaptureError> refusal;
  std::atomic<bool> hold = false, muted = false, running = false;
  SamplesCallback samples;
  FailureCallback failure;

  AudioFormat start(bool mute, SamplesCallback onSamples, FailureCallback onFailure) override {
    while (hold) std::this_thread::sleep_for(1ms);
    if (refusal) throw *refusal;
    muted = mute, running = true, samples = std::move(onSamples), failure = std::move(onFailure);
    return {48000, 2};
  }
  void stop() override { running = false; }
};

SESSION_TEST(AudioFollowsTheNewestClaimAndEveryRunEndsWithItsStatus) {
  Harness other(h.io);
  other.env.audioArbiter = h.env.audioArbiter;
  // Starts run on a thread of their own, as on the host's pool.
  asio::thread_pool background(1);
  const auto capture = std::make_shared<FakeAudioCapture>();
  const auto otherCapture = std::make_shared<FakeAudioCapture>();
  h.env.makeAudioCapture = [capture] { return capture; };
  other.env.makeAudioCapture = [otherCapture] { return otherCapture; };
  h.env.background = other.env.background = background.get_executor();
  co_await h.open();
  co_await other.open();

  h.client->send(msg::setAudio{AudioMode::phoneOnly});
  CO_EXPECT_MESSAGE(h, msg::audioConfig, 48000, 2, AudioCodec::aacELD, {0xf8, 0xe6, 0x40, 0});
  CO_EXPECT_MESSAGE(h, msg::audioStatus, AudioStatus::playing);
  EXPECT_TRUE(capture->muted);
  h.client->send(msg::setAudio{AudioMode::phoneOnly});  // already so: nothing happens
  co_await h.roundTrip();
  capture->samples(std::vector<float>(1024, 0.5f), 1000);
  // Within the test's own time limit.
  const auto packet = co_await h.client->audioPackets().next();
  EXPECT_EQ(packet ? packet->ptsMicros : 0, 1000u);

  other.client->send(msg::setAudio{AudioMode::both});
  co_await other.expect<msg::audioConfig>();
  CO_EXPECT_MESSAGE(other, msg::audioStatus, AudioStatus::playing);
  CO_EXPECT_MESSAGE(h, msg::audioStatus, AudioStatus::off,
                    "Another device is using the computer's audio");
  EXPECT_FALSE(capture->running);

  const std::string gone = "Audio capture: the sound server went away";
  otherCapture->failure(gone);
  CO_EXPECT_MESSAGE(other, msg::audioStatus, AudioStatus::failed, gone);

  // Off before a slow start has finished: the late pipeline is stopped, and says nothing.
  otherCapture->hold = true;
  other.client->send(msg::setAudio{AudioMode::both});
  other.client->send(msg::setAudio{AudioMode::off});
  CO_EXPECT_MESSAGE(other, msg::audioStatus, AudioStatus::off);
  otherCapture->hold = false;
  co_await other.expectSilence("a start that was overtaken");
  EXPECT_FALSE(otherCapture->running);

  otherCapture->refusal = AudioCaptureError::permissionDenied("Access denied");
  other.client->send(msg::setAudio{AudioMode::both});
  CO_EXPECT_MESSAGE(other, msg::audioStatus, AudioStatus::permissionMissing,
                    "Allow Tovu Host to record the computer's sound on the sound server");
  otherCapture->refusal = AudioCaptureError::failed("Audio capture is not available");
  other.client->send(msg::setAudio{AudioMode::both});
  CO_EXPECT_MESSAGE(other, msg::audioStatus, AudioStatus::failed, "Audio capture is not available");
  h.client->close(), other.client->close();
  co_await h.waitForEnd();
  co_await other.waitForEnd();
}

// A state only when something in it changed, each image once and ahead of the first state that
// names it, and the client's own moves back at once but not more often than allowed.
SESSION_TEST(TheCursorGoesOutWhenItChangesWithEachShapeOnceAheadOfItsFirstState) {
  h.useManualClock();
  const auto cursor = std::make_shared<FakeCursorSource>();
  h.env.cursorSource = cursor, h.env.cursorShapePollInterval = 1s,
  h.env.cursorInputInterval = 200ms;
  h.displays->list.push_back({2, "HDMI-1", false, 1280, 1024, {1920, 0, 1280, 1024}});
  co_await h.open();
  const std::chrono::duration<double> positionRound = 1s / 60.0;
  const float x = float(12.0 / 1920), y = float(34.0 / 1080);
  h.clock->advance(positionRound);
  CO_EXPECT_MESSAGE(h, msg::cursorState, 0, 1, x, y, true, 0);  // no shape known yet
  co_await h.tick(positionRound);                               // a still pointer sends nothing

  const CursorShapeData arrow{{0x89, 'P', 'N', 'G'}, 1, 2, 16};
  const std::uint32_t arrowID = CursorShapeRegistry::shapeID(arrow);
  cursor->next = CursorPoll{7, true, arrow};
  h.clock->advance(1s);
  CO_EXPECT_MESSAGE(h, msg::cursorShape, arrowID, arrow.png, 1, 2, 16);
  CO_EXPECT_MESSAGE(h, msg::cursorState, 0, 1, x, y, true, arrowID);
  // The same image, left out by the source; nothing readable; then an application hides it.
  for (const auto& poll : {std::optional(CursorPoll{7, true, {}}), std::optional<CursorPoll>()}) {
    cursor->next = poll;
    co_await h.tick(1s);
  }
  cursor->next = CursorPoll{7, false, {}};
  h.clock->advance(1s);
  CO_EXPECT_MESSAGE(h, msg::cursorState, 0, 1, x, y, false, arrowID);
  EXPECT_EQ(cursor->tokens, (std::vector<std::optional<std::uint64_t>>{{}, 7, 7, 7}));

  // The client's move comes back at once, carrying its sequence number; a second one within the
  // input interval waits for the next round.
  co_await sleepFor(250ms);
  h.client->send(msg::pointer{5, pointer::moveRelative{1, 1}});
  CO_EXPECT_MESSAGE(h, msg::cursorState, 5, 1, x, y, false, arrowID);
  h.client->send(msg::pointer{6, pointer::moveRelative{1, 1}});
  co_await h.roundTrip();
  h.clock->advance(positionRound);
  CO_EXPECT_MESSAGE(h, msg::cursorState, 6, 1, x, y, false, arrowID);
  // Somebody else's move to the second display's far corner, then off every display.
  h.injector->position = Point{3199.9, 1023.9};
  h.clock->advance(positionRound);
  CO_EXPECT_MESSAGE(h, msg::cursorState, 6, 2, float((3199.9 - 1920) / 1280), float(1023.9 / 1024),
                    false, arrowID);
  h.injector->position = Point{5000, 5000};
  co_await h.tick(positionRound);

  // A client that lost a shape asks for it again; one never seen is not sent.
  h.client->send(msg::requestCursorShape{arrowID});
  CO_EXPECT_MESSAGE(h, msg::cursorShape, arrowID, arrow.png, 1, 2, 16);
  h.client->send(msg::requestCursorShape{arrowID + 1});
  co_await h.roundTrip();
}

// What was on the clipboard before the client came is never sent, a change without text is
// consumed once, the client's text is written and does not come back, even to a round during
// the write; and pictures of every
// display but the streamed one, from one loop however often asked.
SESSION_TEST(TheClipboardGoesEachWayWithoutEchoAndThumbnailsShowTheOtherDisplays) {
  h.useManualClock();
  const auto pasteboard = std::make_shared<FakePasteboard>();
  pasteboard->count = 5, pasteboard->text = "before";
  h.env.pasteboard = pasteboard;
  const auto thumbnails = std::make_shared<FakeThumbnails>();
  h.env.thumbnails = thumbnails;
  h.displays->list.push_back({2, "HDMI-1", false, 1280, 1024, {1920, 0, 1280, 1024}});
  h.displays->list.push_back({3, "HDMI-2", false, 1280, 1024, {3200, 0, 1280, 1024}});
  co_await h.open();
  const auto clipboardRound = [&](std::int64_t count, std::optional<std::string> text) {
    pasteboard->count = count, pasteboard->text = std::move(text);
    h.clock->advance(500ms);
  };
  co_await h.tick(500ms);           // unchanged
  clipboardRound(6, std::nullopt);  // a copied picture
  co_await h.roundTrip();
  clipboardRound(6, "not read again");
  clipboardRound(7, "");
  co_await h.roundTrip();
  EXPECT_EQ(pasteboard->reads, 2);
  clipboardRound(8, "copied");
  CO_EXPECT_MESSAGE(h, msg::clipboardText, "copied");
  for (const std::string text : {"from the device", ""}) {
    h.client->send(msg::clipboardText{text});
    co_await h.tick(500ms);
    EXPECT_EQ(pasteboard->text, text);
  }
  // Nor does it come back when a round comes while it is still being written.
  pasteboard->gate = std::make_shared<AsyncQueue<int>>();
  h.client->send(msg::clipboardText{"slow to write"});
  CO_ASSERT_TRUE(co_await pollUntil([&] { return pasteboard->text == "slow to write"; }));
  h.clock->advance(500ms);
  co_await h.expectSilence("a round during the device's write");
  pasteboard->gate->push(0);
  co_await h.tick(500ms);
  co_await h.expectSilence("a round after it");

  // Display 2 fails this time: display 3 still gets its picture.
  thumbnails->failing = {2};
  for (int asked = 0; asked < 2; ++asked) {
    h.client->send(msg::setThumbnails{true});
    CO_EXPECT_MESSAGE(h, msg::thumbnail, 3, Data{3});
  }
  co_await h.roundTrip();
  h.clock->advance(1s);
  CO_EXPECT_MESSAGE(h, msg::thumbnail, 3, Data{3});
  co_await h.roundTrip();  // only the newest loop runs
  h.client->send(msg::setThumbnails{false});
  co_await h.roundTrip();
  co_await h.tick(1s);
  EXPECT_EQ(thumbnails->asked, (std::vector<std::uint32_t>{2, 3, 2, 3, 2, 3}));
}

// The next fileStatus of a transfer that is not a report of progress, which comes by time.
asio::awaitable<msg::fileStatus> fileStatus(Harness& h) {
  for (;;) {
    const auto status = co_await h.expect<msg::fileStatus>();
    if (status.state != FileTransferState::progress) co_return status;
  }
}

// Sends the whole of each file, in chunks of at most `piece` bytes, then the end.
void sendFiles(Harness& h, std::uint32_t id, const std::vector<std::string>& contents,
               std::size_t piece = 3) {
  for (std::size_t index = 0; index < contents.size(); ++index) {
    const std::string& bytes = contents[index];
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      const std::string part = bytes.substr(at, piece);
      h.client->send(msg::fileChunk{id, std::uint16_t(index), at, Data(part.begin(), part.end())});
    }
  }
  h.client->send(msg::fileEnd{id});
}

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Two files land in the inbox and go on the clipboard as files; a single picture goes with its
// bytes too. What the session wrote does not come back to the device as text.
SESSION_TEST(FilesFromTheDeviceLandInTheInboxAndGoOnTheClipboard) {
  h.useManualClock();
  TempDirectory inbox;
  const auto pasteboard = std::make_shared<FakePasteboard>();
  pasteboard->text = "not sent back";
  h.env.pasteboard = pasteboard;
  h.env.inboxRoot = inbox.path();
  co_await h.open();
  const std::string notes = "hello, files", picture("\x89PNG\r\n\x1a\n\0pixels", 15);
  h.client->send(msg::fileOffer{
      7,
      {{"notes.txt", "public.plain-text", notes.size()}, {"dot.png", "public.png", picture.size()}},
      FileTransferKind::paste});
  CO_EXPECT_MESSAGE(h, msg::fileStatus, 7, FileTransferState::accepted, 0, "");
  sendFiles(h, 7, {notes, picture});
  const auto done = co_await fileStatus(h);
  EXPECT_EQ(done, (msg::fileStatus{7, FileTransferState::done, notes.size() + picture.size(), ""}));
  co_await h.roundTrip();
  const auto folder = inbox.path() / "7";
  const ClipboardFiles both{{folder / "notes.txt", folder / "dot.png"}, {}};
  EXPECT_EQ(pasteboard->files, std::vector{both});
  EXPECT_EQ(contentOf(folder / "notes.txt"), notes);
  EXPECT_EQ(contentOf(folder / "dot.png"), picture);

  h.client->send(
      msg::fileOffer{8, {{"dot.png", "public.png", picture.size()}}, FileTransferKind::paste});
  CO_EXPECT_MESSAGE(h, msg::fileStatus, 8, FileTransferState::accepted, 0, "");
  sendFiles(h, 8, {picture}, 64);
  const auto alone = co_await fileStatus(h);
  EXPECT_EQ(alone, (msg::fileStatus{8, FileTransferState::done, picture.size(), ""}));
  co_await h.roundTrip();
  const ClipboardFiles one{{inbox.path() / "8" / "dot.png"}, {{"image/png", picture}}};
  EXPECT_EQ(pasteboard->files, (std::vector{both, one}));
  co_await h.tick(h.env.clipboardPollInterval);
  co_await h.expectSilence("the clipboard's poll after the files were written");
}

// A cancel of the running transfer removes its folder and is not answered; one of another
// transfer does nothing. The session's end drops a transfer that stopped half way the same way.
SESSION_TEST(ACancelOrTheSessionsEndLeavesNoFolderBehind) {
  TempDirectory inbox;
  h.env.inboxRoot = inbox.path();
  co_await h.open();
  const Data half(100, 'x');
  const auto started = [&](std::uint32_t id) -> asio::awaitable<void> {
    h.client->send(msg::fileOffer{id, {{"a.bin", "public.data", 200}}, FileTransferKind::attach});
    CO_EXPECT_MESSAGE(h, msg::fileStatus, id, FileTransferState::accepted, 0, "");
    h.client->send(msg::fileChunk{id, 0, 0, half});
    co_await h.roundTrip();
    EXPECT_EQ(std::filesystem::file_size(inbox.path() / std::to_string(id) / "a.bin"), 100u);
  };
  co_await started(3);
  h.client->send(msg::fileCancel{2});
  co_await h.roundTrip();
  EXPECT_TRUE(std::filesystem::exists(inbox.path() / "3"));
  h.client->send(msg::fileCancel{3});
  co_await h.expectSilence("a cancel");
  EXPECT_FALSE(std::filesystem::exists(inbox.path() / "3"));

  // 10,000 files in one offer are refused; a transfer that stops half way holds its folder
  // while the session goes on.
  h.client->send(msg::fileOffer{5, std::vector<FileMeta>(10'000, {"x", "public.data", 1}),
                                FileTransferKind::attach});
  CO_EXPECT_MESSAGE(h, msg::fileStatus, 5, FileTransferState::rejected, 0,
                    "Too many files: 10000 (limit 10)");
  co_await started(4);
  co_await h.roundTrip();
  h.client->close();
  co_await h.waitForEnd();
  EXPECT_FALSE(std::filesystem::exists(inbox.path() / "4"));
}

// Two windows of one xterm; the first's surface on the main display, with its 8 pixels of margin.
const std::vector<WindowRecord> kTwoXterms = {
    {100, 10, "first", {100, 100, 800, 600}, 0, true, false, "xterm"},
    {101, 10, "second", {200, 200, 400, 300}, 0, true, false, "xterm"}};
const NormalizedRect kFirstSurface{92.f / 1920, 92.f / 1080, 816.f / 1920, 616.f / 1080};

// Focus mode as a person goes through it: a window with the pointer moved into it and the
// client's coordinates spanning its surface, the computer's focus followed to another window and
// back, a fit, the fitted window closing into its sibling, and every fit undone at the end. A
// switch that waits for the window system loses to one that began after it: following the
// computer's focus never overrides the person's own choice made meanwhile.
SESSION_TEST(FocusModeFollowsTheWindowAndTheComputersFocusAndUndoesEveryFit) {
  h.useWindows();
  h.windows->list = kTwoXterms;
  h.windows->visible = Rect{0, 0, 1920, 1080};
  co_await h.open();

  h.client->send(msg::focus{10, 100, false, true});
  co_await h.expectFocusMode({10, 100}, false, kFirstSurface);
  EXPECT_EQ(h.windows->log, (std::vector<std::string>{"activate 10", "raise 100"}));
  EXPECT_EQ(h.captures->scope, (CaptureScope{scope::app{10, {92, 92, 816, 616}}}));
  EXPECT_EQ(h.injector->pointer.back().second->frame, (DisplayFrame{100, 100, 800, 600}));
  h.client->send(msg::pointer{1, pointer::moveAbsolute{1, 0.5f, 0.5f}});
  co_await h.roundTrip();
  EXPECT_EQ(h.injector->pointer.back().second->frame, (DisplayFrame{92, 92, 816, 616}));

  h.windows->observation.focused = ObservedWindow{10, 101, "second", "xterm", {200, 200, 400, 300}};
  h.clock->advance(250ms);
  // Named: GCC 12 mishandles a temporary with a destructor in a co_await.
  const std::optional<FocusFollowInfo> followed =
      FocusFollowInfo{FocusFollowInfo::Kind::window, "xterm", "second", true};
  co_await h.expectFocusMode({10, 101}, false,
                             {192.f / 1920, 192.f / 1080, 416.f / 1920, 316.f / 1080}, followed);
  h.windows->observation.focused.reset();
  h.client->send(msg::focusBack{});
  co_await h.expectFocusMode({10, 100}, false, kFirstSurface);
  h.client->send(msg::focusBack{});
  CO_EXPECT_MESSAGE(h, msg::streamMode,
                    {streammode::focus{10, 100}, false, "Nothing to go back to", kFirstSurface});
  // A menu beside the window widens the surface while it is open.
  h.windows->observation.overlays = {
      {10, 555, "menu", "xterm", {850, 300, 200, 300}, WindowKind::transient}};
  h.clock->advance(250ms);
  const std::optional<FocusFollowInfo> popup =
      FocusFollowInfo{FocusFollowInfo::Kind::popup, "xterm", "menu", false};
  co_await h.expectFocusMode({10, 100}, false,
                             {92.f / 1920, 92.f / 1080, 966.f / 1920, 616.f / 1080}, popup);
  h.windows->observation.overlays.clear();
  h.clock->advance(250ms);
  co_await h.expectFocusMode({10, 100}, false, kFirstSurface);

  const auto asked = [&](std::uint32_t id) { return std::ranges::count(h.windows->lookedUp, id); };
  const auto asked100 = asked(100), asked101 = asked(101);
  h.windows->held = {{100, std::make_shared<AsyncQueue<int>>()},
                     {101, std::make_shared<AsyncQueue<int>>()}};
  h.windows->observation.focused = ObservedWindow{10, 101, "second", "xterm", {200, 200, 400, 300}};
  h.clock->advance(250ms);                            // following to window 101 waits for it
  h.client->send(msg::focus{10, 100, false, false});  // and this for window 100
  // Messages wait for each other: the ping of a round trip would wait for the focus.
  for (int i = 0; i < 200 && !(asked(100) > asked100 && asked(101) > asked101); ++i)
    co_await sleepFor(10ms);
  EXPECT_TRUE(asked(100) > asked100 && asked(101) > asked101) << "both switches wait";
  h.windows->observation.focused.reset();
  h.windows->letGo(100);
  co_await h.expectFocusMode({10, 100}, false, kFirstSurface);
  h.windows->letGo(101);
  co_await h.roundTrip();  // nothing more: the follow saw it was superseded

  h.client->send(msg::focus{10, 100, true, false});
  co_await h.expectFocusMode({10, 100}, true, {0, 0, 1, 1});
  EXPECT_EQ(h.windows->log.back(), "resize 100 0,0 1920x1080");
  // The fitted window closes: its sibling takes over, fitted in turn.
  h.windows->list.erase(h.windows->list.begin());
  h.clock->advance(250ms);
  co_await h.expectFocusMode({10, 101}, true, {0, 0, 1, 1});
  EXPECT_EQ(h.env.fitRegistry->size(), 1u);

  h.client->close();
  co_await h.waitForEnd();
  EXPECT_EQ(h.windows->log.back(), "resize 101 200,200 400x300");
  EXPECT_EQ(h.env.fitRegistry->size(), 0u);
}

// A window of another process, one that cannot be resized, a capture that cannot leave other
// applications out: each is told, and the stream goes on. The app list goes out when it changes;
// window pictures when theirs do.
SESSION_TEST(FocusProblemsAreToldAndAppsAndWindowPicturesGoOutOnlyWhenChanged) {
  h.useWindows();
  const WindowRecord fixed{300, 30, "fixed", {0, 0, 300, 200}, 0, true, false, "xcalc"};
  h.windows->list = {fixed};
  h.windows->unresizable = {300};
  h.windows->appList = {
      {30, "xcalc", "XCalc", {}, true, {{300, "fixed", {0, 0, 300, 200}, 1, true}}}};
  h.windows->recent = {30};
  h.windows->pictures = {{300, Data{1}}};
  h.captures->isolatesApps = false, h.env.ownPID = 40;
  co_await h.open();

  h.client->send(msg::focus{31, 300, false, false});
  CO_EXPECT_MESSAGE(
      h, msg::streamMode,
      {streammode::desktop{}, false, "That window is no longer available", {0, 0, 1, 1}});
  h.client->send(msg::focus{30, 300, true, false});
  co_await h.expect<msg::streamInfo>();
  const auto status = co_await h.expect<msg::hostStatus>();
  EXPECT_EQ(status.state, HostState::ok);
  EXPECT_TRUE(status.detail && status.detail->find("no Composite") != std::string::npos);
  CO_EXPECT_MESSAGE(h, msg::streamMode,
                    {streammode::focus{30, 300},
                     false,
                     "Can\u2019t resize this window",
                     {0, 0, 308.f / 1920, 208.f / 1080}});
  h.client->send(msg::unfocus{});
  CO_EXPECT_MESSAGE(h, msg::hostStatus, HostState::ok, std::nullopt);
  co_await h.expect<msg::streamInfo>();
  CO_EXPECT_MESSAGE(h, msg::streamMode, {streammode::desktop{}, false, std::nullopt, {0, 0, 1, 1}});
  h.client->send(msg::unfocus{});
  co_await h.roundTrip();
  // The focused window closes, and its application has no other.
  h.client->send(msg::focus{30, 300, false, false});
  co_await h.skip<msg::streamInfo, msg::hostStatus, msg::streamMode>();
  h.windows->list.clear();
  h.clock->advance(250ms);
  co_await h.skip<msg::hostStatus, msg::streamInfo>();
  CO_EXPECT_MESSAGE(h, msg::streamMode,
                    {streammode::desktop{}, false, "The window was closed", {0, 0, 1, 1}});
  h.windows->list = {fixed};

  h.client->send(msg::setAppListUpdates{true});
  CO_EXPECT_MESSAGE(h, msg::appList, h.windows->appList);
  CO_EXPECT_MESSAGE(h, msg::recentApps, {30});
  h.clock->advance(1s);
  h.windows->appChanges->push({});
  co_await h.roundTrip();
  h.windows->appList[0].windows[0].title = "renamed";
  h.clock->advance(1s);
  CO_EXPECT_MESSAGE(h, msg::appList, h.windows->appList);
  h.client->send(msg::activateApp{30, 300, false});
  // Quitting: never this process, nor a pid below 1.
  for (const std::int32_t pid : {0, h.env.ownPID, 30}) h.client->send(msg::quitApp{pid});
  co_await h.roundTrip();
  EXPECT_EQ(std::vector(h.windows->log.end() - 2, h.windows->log.end()),
            (std::vector<std::string>{"raise 300", "close 30"}));
  h.windows->list = {fixed};

  h.client->send(msg::windowThumbnails{true, {300, 301}});
  CO_EXPECT_MESSAGE(h, msg::windowThumbnail, 300, Data{1});
  co_await h.tick(1s);
  h.windows->pictures[300] = Data{2};
  h.clock->advance(1s);
  CO_EXPECT_MESSAGE(h, msg::windowThumbnail, 300, Data{2});
}

// The list waits for its scan in a task of its own while later messages are answered; icons go
// out for the first 24 names asked, and a name without an icon gets nothing.
SESSION_TEST(InstalledAppsAndTheirIconsAreAnsweredWithoutHoldingUpWhatFollows) {
  const auto installed = std::make_shared<FakeInstalledApps>();
  installed->list = {{"org.example.Alpha", "Alpha", 11}, {"org.example.Beta", "Beta", 0}};
  installed->gate = std::make_shared<AsyncQueue<int>>();
  std::vector<std::string> ids;
  for (int i = 0; i < 30; ++i) {
    ids.push_back("app" + std::to_string(i));
    if (i % 5 != 1) installed->icons[ids.back()] = Data{std::uint8_t(i)};
  }
  h.env.installedApps = installed;
  co_await h.open();

  h.client->send(msg::requestInstalledApps{});
  co_await h.roundTrip();
  installed->gate->push(1);
  CO_EXPECT_MESSAGE(h, msg::installedApps, installed->list);

  h.client->send(msg::requestAppIcons{ids});
  for (int i = 0; i < 24; ++i)
    if (i % 5 != 1) CO_EXPECT_MESSAGE(h, msg::appIcon, ids[std::size_t(i)], Data{std::uint8_t(i)});
  co_await h.roundTrip();
  EXPECT_EQ(installed->asked, std::vector(ids.begin(), ids.begin() + 24));
}

// The front application's menus as a menu reader gives them, and the presses asked of it.
struct FakeMenus : MenuSource {
  std::optional<FrontApp> front;
  std::optional<std::vector<MenuNode>> tree;  // what a read gives: none when it fails
  MenuPressResult pressing = MenuPressResult::pressed;
  std::vector<std::vector<std::string>> pressed;
  ChangeStream changed = std::make_shared<AsyncQueue<ChangeSignal>>();
  asio::awaitable<std::optional<FrontApp>> frontmost() override { co_return front; }
  ChangeStream changes() override { return changed; }
  asio::awaitable<std::optional<std::vector<MenuNode>>> readMenus(std::int32_t) override {
    co_return tree;
  }
  asio::awaitable<MenuPressResult> press(std::int32_t, std::vector<std::string> path) override {
    co_return (pressed.push_back(std::move(path)), pressing);
  }
};

MenuNode menuItem(std::string title, std::string key = "", bool enabled = true,
                  std::vector<MenuNode> children = {}) {
  const std::uint8_t modifiers = key.empty() ? 0 : kMenuControl;
  return {std::move(title), std::move(key), modifiers,          enabled,
          MenuMark::none,   false,          std::move(children)};
}

// A tree goes out when it changed, numbered anew, and for every switch of application; a failed
// read leaves the device's tree standing. An action is pressed where the fresh tree has it
// enabled, and typed as the shortcut the device was shown where it vanished.
SESSION_TEST(TheFrontMenusGoOutWhenChangedAndActionsArePressedOrTypedAsShortcuts) {
  const auto menus = std::make_shared<FakeMenus>();
  const FrontApp editor{100, "org.gnome.TextEditor", "Text Editor"}, other{200, "xcalc", "XCalc"};
  const std::vector<MenuNode> first = {
      menuItem("File", "", true, {menuItem("New Window", "n"), menuItem("Close", "w", false)}),
      menuItem("Edit", "", true, {menuItem("Undo", "z")})};
  menus->front = editor, menus->tree = first;
  h.useManualClock();
  h.env.menus = menus;
  h.env.keyLayout = [](char32_t c) -> std::optional<LayoutStroke> {
    if (c == U'z') return LayoutStroke{{0x1D}, false, false};
    return std::nullopt;
  };
  co_await h.open();

  h.client->send(msg::watchActions{true});
  CO_EXPECT_MESSAGE(h, msg::appActions, editor.bundleID, editor.name, 1, first);
  menus->changed->push({});
  h.clock->advance(2s);
  co_await h.expectSilence("the same tree read again");
  std::vector<MenuNode> second = first;
  second[1].children[0].enabled = false;
  menus->tree = second;
  menus->changed->push({});
  CO_EXPECT_MESSAGE(h, msg::appActions, editor.bundleID, editor.name, 2, second);
  menus->tree.reset();
  h.clock->advance(2s);
  co_await h.expectSilence("a failed read");
  menus->front = other;  // read as nothing: an empty tree
  menus->changed->push({});
  CO_EXPECT_MESSAGE(h, msg::appActions, other.bundleID, other.name, 3, {});
  menus->front = editor, menus->tree = first;
  h.clock->advance(2s);
  CO_EXPECT_MESSAGE(h, msg::appActions, editor.bundleID, editor.name, 4, first);

  h.client->send(msg::performAction{4, {"File", "New Window"}});
  CO_EXPECT_MESSAGE(h, msg::actionResult, true, "");
  h.client->send(msg::performAction{4, {"File", "Close"}});
  CO_EXPECT_MESSAGE(h, msg::actionResult, false, "Not available right now");
  EXPECT_EQ(menus->pressed, (std::vector<std::vector<std::string>>{{"File", "New Window"}}));
  // Undo vanishes before the device's tree is read again.
  menus->tree = {first[0]};
  h.client->send(msg::performAction{3, {"Edit", "Undo"}});
  CO_EXPECT_MESSAGE(h, msg::actionResult, false, "Action not found");
  EXPECT_TRUE(h.injector->keys.empty());
  h.client->send(msg::performAction{4, {"Edit", "Undo"}});
  CO_EXPECT_MESSAGE(h, msg::actionResult, true, "");
  EXPECT_EQ(h.injector->keys, (std::vector<KeyEvent>{{{0xE0}, true, {0x02}},
                                                     {{0x1D}, true, {0x02}},
                                                     {{0x1D}, false, {0x02}},
                                                     {{0xE0}, false, {0x00}}}));
  EXPECT_EQ(menus->pressed.size(), 1u);

  h.client->send(msg::watchActions{false});
  menus->changed->push({});
  h.clock->advance(2s);
  co_await h.expectSilence("a change after watching stopped");
}

TEST(HostSession, StreamsARealScreenThatTheClientDecodes) {
  VirtualDisplay x(1280, 720);
  SKIP_WITHOUT_DISPLAY(x);
  withHarness([&x](Harness& h) -> asio::awaitable<void> {
    h.env.displays = std::make_shared<RandrDisplayManager>(h.io.get_executor(), x.name());
    h.env.makeCapture = [executor = h.io.get_executor(), name = x.name()] {
      return X11CaptureSource::make(executor, name);
    };
    h.env.encoders =
        std::make_shared<LibavEncoderFactory>(std::vector<LibavBackend>{LibavBackend::libx265()});
    h.env.statsInterval = 100ms;
    ScreenPainter painter(x.name());
    const auto first = desktopPicture(1280, 720);
    painter.show(*first);
    const auto info = co_await h.open();
    EXPECT_EQ(std::pair(info.width, info.height), std::pair(1280u, 720u));
    client::VideoDecoder decoder;
    const auto opening = co_await nextWithin(h.client->videoFrames(), 5s);
    CO_ASSERT_TRUE(opening && opening->isKeyframe);
    EXPECT_GE(psnr(decoder, *opening, *first), 35);

    // The client falls behind: the connection refuses frames. Frame numbers count every encoded
    // frame, so a jump is a gap, and the frame after one must be a key frame.
    h.host->setMaxInFlight(1);
    for (int shift = 8; shift <= 64; shift += 8) {
      painter.show(*desktopPicture(1280, 720, shift));
      co_await sleepFor(40ms);
    }
    co_await sleepFor(300ms);
    h.host->setMaxInFlight(8);
    std::uint64_t previous = opening->frameNumber;
    int gaps = 0;
    auto receiveUntilQuiet = [&]() -> asio::awaitable<std::optional<client::Picture>> {
      std::optional<client::Picture> latest;
      while (const auto frame = co_await nextWithin(h.client->videoFrames(), 1500ms)) {
        EXPECT_TRUE(frame->isKeyframe || frame->frameNumber == previous + 1) << frame->frameNumber;
        gaps += frame->frameNumber != previous + 1;
        previous = frame->frameNumber;
        if (auto picture = decoder.decode(*frame)) latest = std::move(picture);
      }
      co_return latest;
    };
    co_await receiveUntilQuiet();
    // A still screen sends nothing more: the key frame comes with the next change. At rest the
    // idle refresh sharpens the picture, though the gap's key frames cost bits.
    const auto last = desktopPicture(1280, 720, 100);
    painter.show(*last);
    const auto settled = co_await receiveUntilQuiet();
    CO_ASSERT_TRUE(settled);
    EXPECT_GE(psnr(*settled, *last), 35);
    EXPECT_TRUE(gaps > 0 && h.lastReport().framesDropped > 0);
    EXPECT_EQ(h.lastReport().phase, Phase::streaming);
    h.client->close();
    co_await h.waitForEnd();
  });
}

}  // namespace
}  // namespace kelvaron::host
