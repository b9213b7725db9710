// A HostSession against an in-process client over real frames.

#include "host/session/HostSession.hpp"

#include <gtest/gtest.h>

#include <asio/thread_pool.hpp>
#include <atomic>
#include <cmath>
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
#include "tests/support/VirtualDisplay.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

// Lets messages through once `deviceID` has signed in with `publicKey`, as a gate does.
class FakeGate : public AuthGate {
 public:
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

const UUID kDevice{{1, 2, 3}};
const UUID kHost{{9, 9, 9}};

msg::hello hello(std::vector<CodecProfile> profiles = {CodecProfile::hevcMain},
                 std::uint16_t version = 16) {
  return {version, kDevice, "Ann's iPad", {std::move(profiles), 2048, 1536, 2, "iPad8,1", false}};
}

struct Harness {
  explicit Harness(asio::io_context& context) : io(context) {
    std::tie(client, host) = InMemoryConnection::makePair();
    env.hostID = kHost;
    env.hostName = "studio";
    env.displays = displays;
    env.encoders = encoders;
    env.power = power;
    env.makeCapture = [all = captures] { return std::make_shared<FakeCapture>(all); };
    env.injector = injector;
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
    co_await expect<msg::helloAck>();
    co_await expect<msg::hostStatus>();
    co_await expect<msg::displayList>();
    co_return co_await expect<msg::streamInfo>();
  }
  // Returns once the session has taken every message sent before.
  asio::awaitable<void> roundTrip() {
    client->send(msg::ping{77});
    const auto pong = co_await expect<msg::pong>();
    EXPECT_EQ(pong, msg::pong{77});
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
  std::vector<CodecProfile> clientProfiles = {CodecProfile::hevcMain};
  HostEnvironment env;
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

// The gate sees the connection start and end; the session takes only what it passes, and offers
// relays to the key the device signed in with, not its fixed one.
TEST(HostSession, HelloOpensTheSessionWithItsFirstMessagesInOrderAndAReplacementEndsIt) {
  withHarness([](Harness& h) -> asio::awaitable<void> {
    h.env.relayConfig = [](const std::optional<Data>& key) -> std::optional<RelayProvision> {
      EXPECT_EQ(key, Data{1});
      return RelayProvision{{{"relay.example", 443}}, {5}};
    };
    auto gate = std::make_shared<FakeGate>();
    h.start(gate, Data{7});
    h.client->send(hello());
    co_await h.expectSilence("a hello before the device signed in");
    gate->deviceID = kDevice;
    gate->publicKey = Data{1};
    h.client->send(hello());
    const auto ack = co_await h.expect<msg::helloAck>();
    EXPECT_EQ(ack, (msg::helloAck{16, kHost, "studio", CodecProfile::hevcMain}));
    const msg::relayConfig relays{{{"relay.example", 443}}, {5}};
    const auto relayMessage = co_await h.expect<msg::relayConfig>();
    EXPECT_EQ(relayMessage, relays);
    const auto status = co_await h.expect<msg::hostStatus>();
    EXPECT_EQ(status, (msg::hostStatus{HostState::ok, {}}));
    const auto list = co_await h.expect<msg::displayList>();
    EXPECT_EQ(list.displays, h.displays->list);
    // The main display, whole, at its own size: the client's screen is larger.
    const msg::streamInfo whole{1, {0, 0, 1, 1}, 1920, 1080, CodecProfile::hevcMain};
    const auto info = co_await h.expect<msg::streamInfo>();
    EXPECT_EQ(info, whole);
    EXPECT_EQ(std::tuple(h.power->held.size(), h.power->activityDeclared), std::tuple(1u, 1));
    h.client->send(hello());
    co_await h.expectSilence("a second hello");

    co_await h.session->replaced("Bob's iPhone");
    const auto replaced = co_await h.expect<msg::sessionReplaced>();
    EXPECT_EQ(replaced, msg::sessionReplaced{"Bob's iPhone"});
    co_await h.expectHangUp();
    EXPECT_TRUE(gate->started && gate->ended);
    EXPECT_TRUE(h.power->held.empty() && h.encoders->made->stopped);
    EXPECT_EQ(h.captures->log, (std::vector<std::string>{"start 1 1920x1080", "stop"}));
    const SessionStatus& r = h.lastReport();
    EXPECT_EQ(
        std::tie(r.phase, r.displayName, r.width, r.deviceName, r.targetBitrateMbps, r.profile),
        std::tuple(SessionStatus::Phase::ended, "DP-1", 1920, "Ann's iPad", 16.0,
                   CodecProfile::hevcMain));
  });
}

// The profile is the best both sides have; a hello without one in common or of another version
// is refused, the connection closes without a helloAck and nothing queued behind is looked at.
TEST(HostSession, HelloGetsTheBestCommonProfileOrIsRefused) {
  using enum CodecProfile;
  const std::string noProfile = "No common video profile.";
  const std::vector<std::tuple<std::uint16_t, std::vector<CodecProfile>, std::vector<CodecProfile>,
                               std::variant<CodecProfile, std::string>>>
      cases = {
          {16, {hevcMain, hevcMain444}, {hevcMain, hevcMain444}, hevcMain444},
          {16, {hevcMain, hevcMain444}, {hevcMain}, hevcMain},
          {16, {hevcMain444}, {hevcMain, hevcMain444, hevcMain44410}, hevcMain444},
          // The 10-bit profiles are never chosen.
          {16, {hevcMain10, hevcMain44410}, {hevcMain10, hevcMain44410}, noProfile},
          {16, {}, {hevcMain}, noProfile},
          {15, {hevcMain}, {hevcMain}, "Unsupported protocol version 15; this host speaks 16."},
      };
  for (const auto& [version, client, encoder, outcome] : cases) {
    withHarness([&](Harness& h) -> asio::awaitable<void> {
      h.encoders->profiles = encoder;
      h.start();
      h.client->send(hello(client, version));
      h.client->send(hello());
      if (const auto* profile = std::get_if<CodecProfile>(&outcome)) {
        const auto ack = co_await h.expect<msg::helloAck>();
        EXPECT_EQ(ack.profile, *profile);
        co_return;
      }
      const auto& reason = std::get<std::string>(outcome);
      const auto reject = co_await h.expect<msg::helloReject>();
      EXPECT_EQ(reject.reason, reason);
      co_await h.expectHangUp();
      // Ended twice: once by the refusal, once by the teardown.
      CO_ASSERT_TRUE(h.reports->size() == 2u);
      EXPECT_EQ(h.reports->at(0).note, reason);
      EXPECT_EQ(h.reports->at(0).phase, SessionStatus::Phase::ended);
      EXPECT_TRUE(h.captures->log.empty() && h.power->held.empty());
    });
  }
}

// Before hello nothing is answered and only the choice of a session without video is kept; at
// hello the keep-awake setting replaces what the application said before.
TEST(HostSession, BeforeHelloOnlyTheNoVideoChoiceIsKept) {
  withHarness([](Harness& h) -> asio::awaitable<void> {
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
    const auto status = co_await h.expect<msg::hostStatus>();
    EXPECT_EQ(status, (msg::hostStatus{HostState::ok, {}}));
    // Without displays it waits, with a note.
    const auto list = co_await h.expect<msg::displayList>();
    EXPECT_TRUE(list.displays.empty());
    co_await h.roundTrip();
    EXPECT_EQ(h.lastReport().note, "No displays available");
    EXPECT_EQ(h.lastReport().phase, SessionStatus::Phase::negotiating);

    EXPECT_TRUE(h.power->held.empty());
    h.session->setKeepAwake(true);
    h.session->setKeepAwake(true);
    co_await h.roundTrip();
    EXPECT_EQ(h.power->held.size(), 1u);
    h.session->setKeepAwake(false);
    co_await h.roundTrip();
    EXPECT_TRUE(h.power->held.empty() && h.power->taken == 1);
  });
}

TEST(HostSession, AGatedSessionRefusesTheHelloOfAnotherDeviceThanTheOneSignedIn) {
  withHarness([](Harness& h) -> asio::awaitable<void> {
    auto gate = std::make_shared<FakeGate>();
    gate->deviceID = UUID{{4, 4}};
    h.start(gate);
    h.client->send(hello());
    const auto reject = co_await h.expect<msg::helloReject>();
    EXPECT_EQ(reject.reason, "Device ID does not match the authenticated device.");
    co_await h.expectHangUp();
  });
}

// Video off and a hold of capture stop capture but keep the source.
TEST(HostSession, TheSourceFollowsTheClientAndTheDisplaysAndOutlivesVideoOffAndHolds) {
  withHarness([](Harness& h) -> asio::awaitable<void> {
    using enum CodecProfile;
    h.displays->list.push_back({2, "HDMI-1", false, 2560, 1600, {1920, 0, 2560, 1600}});
    co_await h.open();
    h.displays->signal();
    co_await h.expectSilence("a change that changes nothing");
    // What the network sends is made usable: NaN, a rectangle sticking out, sides out of range.
    const msg::viewport zoom{{1, {NAN, 0.5f, 0.5f, 2}, 9000, 1001}};
    h.client->send(zoom);
    const auto zoomed = co_await h.expect<msg::streamInfo>();
    EXPECT_EQ(zoomed, (msg::streamInfo{1, {0, 0.5f, 0.5f, 0.5f}, 8192, 1000, hevcMain}));
    h.client->send(msg::selectDisplay{7});
    co_await h.expectSilence("an unknown display");
    h.client->send(msg::selectDisplay{2});
    const auto second = co_await h.expect<msg::streamInfo>();
    // Scaled to the client's 2048x1536 screen, keeping the display's shape.
    EXPECT_EQ(second, (msg::streamInfo{2, {0, 0, 1, 1}, 2048, 1280, hevcMain}));

    h.displays->list[1].name = "HDMI-1 (TV)";
    h.displays->signal();
    co_await h.expect<msg::displayList>();
    co_await h.expectSilence("a new name, after the list");
    // A new size throws the client's viewport away; a vanished display falls back to the main.
    h.displays->list[1] = {2, "HDMI-1", false, 1280, 720, {1920, 0, 1280, 720}};
    h.displays->signal();
    co_await h.expect<msg::displayList>();
    const auto resized = co_await h.expect<msg::streamInfo>();
    EXPECT_EQ(resized, (msg::streamInfo{2, {0, 0, 1, 1}, 1280, 720, hevcMain}));
    h.displays->list.pop_back();
    h.displays->signal();
    co_await h.expect<msg::displayList>();
    const auto back = co_await h.expect<msg::streamInfo>();
    EXPECT_EQ(back, (msg::streamInfo{1, {0, 0, 1, 1}, 1920, 1080, hevcMain}));

    // Each change of display asks for a key frame.
    EXPECT_EQ(h.encoders->made->keyframeRequests, 3);
    EXPECT_EQ(h.lastReport().phase, SessionStatus::Phase::streaming);
    EXPECT_EQ(h.lastReport().displayName, "DP-1");

    h.displays->list.push_back({2, "HDMI-1", false, 1280, 720, {1920, 0, 1280, 720}});
    h.displays->signal();
    co_await h.expect<msg::displayList>();
    h.client->send(msg::setVideoEnabled{false});
    h.client->send(msg::setVideoEnabled{false});
    const msg::viewport half{{2, {0, 0, 0.5f, 0.5f}, 640, 360}};
    h.client->send(half);
    co_await h.expectSilence("a new source while video is off");
    EXPECT_EQ(h.lastReport().note, "Remote mode (no video)");
    EXPECT_EQ(h.lastReport().width, 640);
    h.client->send(msg::setVideoEnabled{true});
    const auto shown = co_await h.expect<msg::streamInfo>();
    EXPECT_EQ(shown.sourceRect, (NormalizedRect{0, 0, 0.5f, 0.5f}));
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
    const auto resumed = co_await h.expect<msg::streamInfo>();
    EXPECT_EQ(resumed, (msg::streamInfo{1, {0, 0, 1, 1}, 1920, 1080, hevcMain}));
    EXPECT_EQ(h.lastReport().note, std::nullopt);
    // The source applies the geometry itself.
    EXPECT_EQ(h.captures->log, (std::vector<std::string>{
                                   "start 1 1920x1080", "update 1 9000x1001", "update 2 2048x1280",
                                   "update 2 1280x720", "update 1 1920x1080", "stop",
                                   "start 2 640x360", "stop", "start 1 1920x1080"}));
  });
}

// What the computer's lifecycle says wins over capture problems, and each state is said once. A
// capture that fails or ends is told, and the next selection tries again with a fresh source.
TEST(HostSession, CaptureProblemsAreToldUnlessTheLifecycleHidesThemAndTheSessionGoesOn) {
  withHarness([](Harness& h) -> asio::awaitable<void> {
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
    const auto status = co_await h.expect<msg::hostStatus>();
    EXPECT_EQ(status, permission);
    co_await h.expect<msg::displayList>();
    h.session->setLifecycleState(HostState::locked, "Mac is locked");
    const auto locked = co_await h.expect<msg::hostStatus>();
    EXPECT_EQ(locked, (msg::hostStatus{HostState::locked, "Mac is locked"}));
    h.session->setLifecycleState(HostState::locked, "Mac is locked");
    co_await h.expectSilence("the same state again");
    h.session->setLifecycleState(HostState::ok, std::nullopt);
    const auto unlocked = co_await h.expect<msg::hostStatus>();
    EXPECT_EQ(unlocked, permission);

    granted = true;
    const std::string unavailable = "Display 1 is not available for capture.";
    h.captures->failure = unavailable;
    h.client->send(msg::selectDisplay{1});
    const auto blocked = co_await h.expect<msg::hostStatus>();
    EXPECT_EQ(blocked, (msg::hostStatus{HostState::captureBlocked, unavailable}));
    EXPECT_EQ(h.lastReport().captureError, unavailable);
    EXPECT_EQ(h.lastReport().phase, SessionStatus::Phase::negotiating);
    h.captures->failure.reset();
    h.client->send(msg::selectDisplay{1});
    const auto ok = co_await h.expect<msg::hostStatus>();
    EXPECT_EQ(ok, (msg::hostStatus{HostState::ok, {}}));
    co_await h.expect<msg::streamInfo>();
    EXPECT_EQ(h.lastReport().captureError, std::nullopt);
    h.captures->endLast("The X server went away.");
    const auto lost = co_await h.expect<msg::hostStatus>();
    EXPECT_EQ(lost, (msg::hostStatus{HostState::captureBlocked, "The X server went away."}));
    h.client->send(msg::selectDisplay{1});
    co_await h.expect<msg::hostStatus>();
    co_await h.expect<msg::streamInfo>();
    EXPECT_EQ(h.captures->log,
              (std::vector<std::string>{"start 1 1920x1080", "stop", "start 1 1920x1080"}));
  });
}

// While streaming: feedback steers the rate, the encoder's news reaches both sides, input reaches
// the injector; the end leaves nothing behind and nothing held down.
TEST(HostSession, FeedbackSteersTheRateInputReachesTheInjectorAndTheEndLeavesNothingBehind) {
  withHarness([](Harness& h) -> asio::awaitable<void> {
    using enum CodecProfile;
    auto clock = std::make_shared<ManualClock>();
    h.env.sleep = [clock](std::chrono::duration<double> d) { return clock->sleep(d); };
    bool asleep = false;
    std::vector<bool> wakeRequests;
    h.env.isDisplayAsleep = [&asleep] { return asleep; };
    h.env.onWakeRequested = [&](bool displayAsleep) -> asio::awaitable<void> {
      wakeRequests.push_back(displayAsleep);
      asleep = false;
      co_return;
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

    // Frames go straight from the encoder to the client; the statistics tell of them at their
    // next tick.
    VideoFrame frame;
    frame.displayID = 1;
    frame.isKeyframe = true;
    frame.payload = SharedBytes(Data{0, 0, 0, 1, 0x26});
    encoder.output(encoderOutput::frame{frame, 12.5});
    const auto received = co_await nextWithin(h.client->videoFrames(), 5s);
    EXPECT_EQ(received, frame);
    EXPECT_EQ(h.lastReport().framesSent, 0);
    clock->advance(1s);
    co_await h.roundTrip();
    EXPECT_EQ(h.lastReport().framesSent, 1);
    EXPECT_EQ(h.lastReport().encodeLatencyMs, 12.5);

    // The encoder's own news, from its thread, reaches the application and the client.
    encoder.output(encoderOutput::profileFallback{hevcMain444, hevcMain});
    const auto info = co_await h.expect<msg::streamInfo>();
    EXPECT_EQ(info.profile, hevcMain);
    EXPECT_EQ(h.lastReport().note, "Encoder fell back from hevcMain444 to hevcMain");
    encoder.output(encoderOutput::failed{"session lost"});
    co_await h.roundTrip();
    EXPECT_EQ(h.lastReport().note, "Encoder: session lost");

    const int activityBefore = h.power->activityDeclared;
    wakeRequests.clear();
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
    EXPECT_EQ(wakeRequests, std::vector<bool>{true});
    EXPECT_EQ(h.power->activityDeclared, activityBefore + 1);
    EXPECT_EQ(h.env.clicks->last().value_or(ClickRecord::Click{}).point, (Point{12, 34}));

    // A stranger who connects and drops before hello takes nothing and lets go of nothing; the
    // session lets go of its own keys.
    Harness stranger(h.io);
    stranger.env.injector = h.injector;
    stranger.start(std::make_shared<FakeGate>());
    stranger.client->close();
    co_await stranger.waitForEnd();
    EXPECT_EQ(h.injector->held.size(), 1u);
    EXPECT_EQ(std::tuple(stranger.reports->size(), stranger.lastReport().phase,
                         stranger.power->taken, stranger.displays->liveSubscribers()),
              std::tuple(1u, SessionStatus::Phase::ended, 0, 0u));

    // The application lets go of the session while it runs: the run keeps it alive until the
    // client vanishes without a word; then nothing of it is left, and nothing stays down.
    const std::weak_ptr<HostSession> session = h.session;
    const std::weak_ptr<Connection> hostEnd = h.host;
    h.session.reset();
    h.host.reset();
    co_await sleepFor(20ms);
    EXPECT_FALSE(session.expired());
    h.client.reset();
    co_await h.waitForEnd();
    co_await sleepFor(20ms);
    EXPECT_TRUE(session.expired() && hostEnd.expired());
    EXPECT_EQ(h.displays->liveSubscribers(), 0u);
    EXPECT_TRUE(h.power->held.empty() && h.injector->held.empty());
  });
}

// A capture that the test feeds; its start waits while `hold` is set, as a sound server that is
// slow to answer.
struct FakeAudioCapture : AudioCapturing {
  std::optional<AudioCaptureError> refusal;
  std::atomic<bool> hold = false, muted = false, running = false;
  SamplesCallback samples;
  FailureCallback failure;

  AudioFormat start(bool mute, SamplesCallback onSamples, FailureCallback onFailure) override {
    while (hold) std::this_thread::sleep_for(1ms);
    if (refusal) throw *refusal;
    muted = mute, running = true;
    samples = std::move(onSamples), failure = std::move(onFailure);
    return {48000, 2};
  }
  void stop() override { running = false; }
};

TEST(HostSession, AudioFollowsTheNewestClaimAndEveryRunEndsWithItsStatus) {
  withHarness([](Harness& a) -> asio::awaitable<void> {
    Harness b(a.io);
    b.env.audioArbiter = a.env.audioArbiter;
    // Starts run on a thread of their own, as on the host's pool.
    asio::thread_pool background(1);
    const auto captureA = std::make_shared<FakeAudioCapture>();
    const auto captureB = std::make_shared<FakeAudioCapture>();
    a.env.makeAudioCapture = [captureA] { return captureA; };
    b.env.makeAudioCapture = [captureB] { return captureB; };
    a.env.background = b.env.background = background.get_executor();
    co_await a.open();
    co_await b.open();

    a.client->send(msg::setAudio{AudioMode::phoneOnly});
    const auto config = co_await a.expect<msg::audioConfig>();
    EXPECT_EQ(config, (msg::audioConfig{48000, 2, AudioCodec::aacELD, Data{0xf8, 0xe6, 0x40, 0}}));
    auto status = co_await a.expect<msg::audioStatus>();
    EXPECT_EQ(status, (msg::audioStatus{AudioStatus::playing, {}}));
    EXPECT_TRUE(captureA->muted);
    a.client->send(msg::setAudio{AudioMode::phoneOnly});  // already so: nothing happens
    co_await a.roundTrip();
    const std::vector<float> sound(1024, 0.5f);
    captureA->samples(sound, 1000);
    // Within the test's own time limit.
    const auto packet = co_await a.client->audioPackets().next();
    EXPECT_EQ(packet ? packet->ptsMicros : 0, 1000u);

    // A second device takes the sound; the first is told, and stays off.
    b.client->send(msg::setAudio{AudioMode::both});
    co_await b.expect<msg::audioConfig>();
    status = co_await b.expect<msg::audioStatus>();
    EXPECT_EQ(status, (msg::audioStatus{AudioStatus::playing, {}}));
    status = co_await a.expect<msg::audioStatus>();
    EXPECT_EQ(status,
              (msg::audioStatus{AudioStatus::off, "Another device is using the computer's audio"}));
    EXPECT_FALSE(captureA->running);

    // The sound server goes away mid-run.
    captureB->failure("Audio capture: the sound server went away");
    status = co_await b.expect<msg::audioStatus>();
    EXPECT_EQ(status,
              (msg::audioStatus{AudioStatus::failed, "Audio capture: the sound server went away"}));

    // Off before a slow start has finished: the late pipeline is stopped, and says nothing.
    captureB->hold = true;
    b.client->send(msg::setAudio{AudioMode::both});
    b.client->send(msg::setAudio{AudioMode::off});
    status = co_await b.expect<msg::audioStatus>();
    EXPECT_EQ(status, (msg::audioStatus{AudioStatus::off, {}}));
    captureB->hold = false;
    co_await b.expectSilence("a start that was overtaken");
    EXPECT_FALSE(captureB->running);

    // A refusal of the sound server, in words for the person.
    captureB->refusal = AudioCaptureError::permissionDenied("Access denied");
    b.client->send(msg::setAudio{AudioMode::both});
    status = co_await b.expect<msg::audioStatus>();
    EXPECT_EQ(status.status, AudioStatus::permissionMissing);
    captureB->refusal = AudioCaptureError::failed("Audio capture is not available");
    b.client->send(msg::setAudio{AudioMode::both});
    status = co_await b.expect<msg::audioStatus>();
    EXPECT_EQ(status, (msg::audioStatus{AudioStatus::failed, "Audio capture is not available"}));
    a.client->close(), b.client->close();
    co_await a.waitForEnd();
    co_await b.waitForEnd();
  });
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
        if (frame->frameNumber != previous + 1) {
          ++gaps;
          EXPECT_TRUE(frame->isKeyframe) << "frame " << frame->frameNumber << " after a gap";
        }
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
    EXPECT_EQ(h.lastReport().phase, SessionStatus::Phase::streaming);
    h.client->close();
    co_await h.waitForEnd();
  });
}

}  // namespace
}  // namespace kelvaron::host
