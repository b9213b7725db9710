// The application's model with stand-ins for the computer and network but the real pairing and
// gate; the listener's supervision: its backoff, its port, the network changes that restart it.

#include <gtest/gtest.h>

#include <fstream>

#include "host/app/AppModel.hpp"
#include "host/app/ListenerSupervisor.hpp"
#include "host/app/NetworkPathWatch.hpp"
#include "host/app/RelayProvisioner.hpp"
#include "kit/crypto/AuthCrypto.hpp"
#include "kit/relay/RelayJoinGrant.hpp"
#include "kit/security/ClientHandshake.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/HostFakes.hpp"
#include "tests/support/ManualClock.hpp"
#include "tests/support/NetworkNamespace.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::host {
namespace {

using namespace test;
using Port = std::optional<std::uint16_t>;
using Client = std::shared_ptr<InMemoryConnection>;

struct FakeListener : HostListener {
  AsyncQueue<std::shared_ptr<Connection>> queue;
  int stops = 0;
  AsyncQueue<std::shared_ptr<Connection>>& connections() override { return queue; }
  void stop() override { ++stops, queue.finish(); }
  void die() { queue.finish(); }  // ends the stream while its owner still wants it
};

// An application on port 7000 whose listeners are queues the test fills.
struct App {
  explicit App(asio::io_context& io) {
    deps.listenerFactory = [this](const HostSecurity&, Port port) {
      requestedPorts.push_back(port);
      listener = std::make_shared<FakeListener>();  // a listener is used once
      return ListenerStart{listener, []() -> asio::awaitable<std::uint16_t> { co_return 7000; }};
    };
    deps.loadSecurity = [this](const UUID& hostID, const std::string& name) {
      if (securityFailure) throw std::runtime_error(*securityFailure);
      const auto identity =
          std::make_shared<SelfSignedIdentity>(SelfSignedIdentity::temporary("Tovu Host"));
      service = std::make_shared<HostPairingService>(
          hostID, name, identity->fingerprint(), std::make_shared<PairedDeviceStore>(std::nullopt),
          nullptr, [] { return WallClock::now(); });
      return HostSecurity{identity, service};
    };
    deps.probeEncoders = [this] {
      ++probes;
      return std::shared_ptr<EncoderFactory>(encoders);
    };
    deps.environment = [](std::shared_ptr<EncoderFactory> factory) {
      HostEnvironment env{.displays = std::make_shared<FakeDisplays>(),
                          .encoders = std::move(factory),
                          .injector = std::make_shared<FakeInjector>()};
      env.makeCapture = [all = std::make_shared<FakeCaptures>()] {
        return std::make_shared<FakeCapture>(all);
      };
      return env;
    };
    deps.readPermissions = [] { return Permissions{true, true}; };
    deps.power = std::make_shared<FakePower>();
    deps.settings = std::make_shared<Settings>(directory.path() / "settings.json");
    deps.hostName = "studio";
    deps.port = 7000;
    model = AppModel::make(io.get_executor(), deps);
  }
  ~App() { model->stop(); }

  // Until the model is listening, or the test's time is up.
  asio::awaitable<void> started() {
    model->start();
    model->start();
    co_await pollUntil([this] { return model->supervisor() || model->securityError(); });
  }

  // A device on a new connection, pairing with a fresh token or signing in, says hello; its end.
  asio::awaitable<Client> connect(const ClientIdentity& device, const std::string& name,
                                  bool pair) {
    auto [client, host] = InMemoryConnection::makePair();
    listener->connections().push(host);
    const auto purpose = pair ? ClientHandshake::Purpose::pairWithToken(service->issueToken().value)
                              : ClientHandshake::Purpose::authenticate();
    const Data fingerprint = model->security()->identity->fingerprint();
    const std::function<std::optional<Data>()> pinned = [fingerprint] { return fingerprint; };
    const std::function<void(const std::string&)> noCode;
    CO_EXPECT_EQ(ClientHandshake::run(client, device, purpose, name, pinned, 5s, noCode),
                 ClientHandshake::Event::of(ClientHandshake::Event::Kind::authenticated));
    client->send(msg::hello{
        16, device.deviceID, name, {{CodecProfile::hevcMain}, 1920, 1080, 2, "x", false}});
    CO_ASSERT_TRUE(co_await until<msg::helloAck>(client));
    co_return client;
  }

  bool shows(std::string_view who) { return model->status() && model->status()->deviceName == who; }

  // Skips a device's messages up to one of type `Case`; nothing if the connection ends first.
  template <class Case>
  static asio::awaitable<std::optional<Case>> until(const Client& client) {
    while (const auto m = co_await nextWithin(client->messages(), 5s))
      if (const auto* found = std::get_if<Case>(&*m)) co_return *found;
    co_return std::nullopt;
  }

  TempDirectory directory;
  AppModel::Dependencies deps;
  std::shared_ptr<FakeListener> listener = std::make_shared<FakeListener>();
  std::shared_ptr<HostPairingService> service;
  std::shared_ptr<FakeEncoders> encoders = std::make_shared<FakeEncoders>();
  std::optional<std::string> securityFailure;
  std::vector<Port> requestedPorts;
  int probes = 0;
  std::shared_ptr<AppModel> model;
};

// An address comes and goes on a second interface: each time the listener restarts, on its port.
TEST(AppModel, RestartsTheListenerWhenTheNetworkChanges) {
  NetworkNamespace network;
  if (!network.problem().empty()) GTEST_SKIP() << network.problem();
  NetworkNamespace::addEthernet("tovu0", "tovu1", "10.77.0.1/24");
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    App app(io);
    co_await app.started();
    co_await sleepFor(200ms);  // the watch has read the interfaces as they were
    for (const char* change : {"add", "del"}) {
      const auto before = app.requestedPorts.size();
      NetworkNamespace::ip({"address", change, "10.78.0.1/24", "dev", "tovu1"});
      co_await pollUntil([&] { return app.requestedPorts.size() != before; });
    }
    EXPECT_EQ(app.requestedPorts, (std::vector<Port>{7000, 7000, 7000}));
  });
}

// Without its identity the model says why; a device taken over by another hears who did.
TEST(AppModel, ListensOnceTheEncodersAreKnownAndTheLastDeviceToSignInIsLive) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    App broken(io);
    broken.securityFailure = "locked";
    co_await broken.started();
    EXPECT_EQ(broken.model->securityError(), "Could not load the host identity: locked");
    EXPECT_EQ(broken.model->supervisor(), nullptr);

    App app(io);
    co_await app.started();
    EXPECT_TRUE(app.probes == 1 && app.model->encoderReady());
    EXPECT_EQ(app.model->supportedProfiles(), app.encoders->profiles);
    EXPECT_EQ(app.requestedPorts, std::vector<Port>{7000});
    // The host's ID is made once and kept in the settings.
    const UUID id = app.model->security()->service->hostID();
    EXPECT_EQ(Settings(app.directory.path() / "settings.json").hostID(), id);
    const ClientIdentity ann{AuthCrypto::randomUUID(), P256PrivateKey::generate()};
    const ClientIdentity bob{AuthCrypto::randomUUID(), P256PrivateKey::generate()};
    const std::string annName = "Ann's iPad", bobName = "Bob's iPhone";

    const auto first = co_await app.connect(ann, annName, true);
    EXPECT_TRUE(co_await pollUntil([&] { return app.shows(annName); }));

    // A connection that never signs in stays a candidate and never shows.
    auto [silent, silentHost] = InMemoryConnection::makePair();
    app.listener->connections().push(silentHost);

    // Ann again, by signature alone: the old session ends without a word.
    const auto again = co_await app.connect(ann, annName, false);
    CO_EXPECT_EQ(App::until<msg::sessionReplaced>(first), std::nullopt);

    const auto third = co_await app.connect(bob, bobName, true);
    CO_EXPECT_EQ(App::until<msg::sessionReplaced>(again), msg::sessionReplaced{bobName});
    co_await sleepFor(300ms);
    EXPECT_TRUE(app.model->hasLiveSession() && app.shows(bobName));
    EXPECT_EQ(app.model->status()->phase, SessionStatus::Phase::streaming);
    EXPECT_EQ(app.model->candidateCount(), 2u);  // Bob's, and the silent one

    // The live session ending by itself shows as ended, and leaves no live session.
    third->close();
    EXPECT_TRUE(co_await pollUntil([&] { return !app.model->hasLiveSession(); }));
    EXPECT_EQ(app.model->status()->phase, SessionStatus::Phase::ended);

    // Stopping ends the sessions that are left; the model says when their teardowns are over.
    app.model->stop();
    co_await app.model->sessionsEnded();
    EXPECT_EQ(app.model->candidateCount(), 0u);
  });
}

// A host ID that is no UUID is made anew; a value of the wrong type, or a damaged file, is nothing.
TEST(Settings, KeepsItsValuesAndItsHostIDAndADamagedFileAside) {
  TempDirectory directory;
  const auto file = directory.path() / "tovu-host" / "settings.json";
  const std::string flag = "keepDisplayAwakeWhileConnected";
  Settings first(file);
  EXPECT_EQ(first.flag(flag), std::nullopt);
  first.setFlag(flag, false);
  const UUID id = first.hostID();
  EXPECT_EQ(Settings(file).flag(flag), false);
  EXPECT_EQ(Settings(file).hostID(), id);
  std::ofstream(file) << R"({"hostID": "not a uuid", "keepDisplayAwakeWhileConnected": "yes"})";
  EXPECT_EQ(Settings(file).flag(flag), std::nullopt);
  EXPECT_NE(Settings(file).hostID(), id);

  for (const std::string damaged : {"{\"hostID\": ", "[1, 2]", "\xff\xfe"}) {
    std::ofstream(file) << damaged;
    Settings settings(file);
    EXPECT_EQ(settings.flag(flag), std::nullopt);
    settings.setFlag(flag, true);
    std::ifstream aside(std::filesystem::path(file).concat(".bad"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(aside), {}), damaged);
    EXPECT_EQ(Settings(file).flag(flag), true);
  }
}

// The enrolment holds for the coordinator it was made with; a denied key is forgotten after 31
// days, or as soon as its device is given a grant again; hand-edited nonsense counts as nothing.
TEST(RelaySettings, KeepsTheEnrolmentOfItsCoordinatorAndDeniedKeysForAMonth) {
  TempDirectory directory;
  const auto settings = std::make_shared<Settings>(directory.path() / "settings.json");
  settings->set("relay.enrolledLabel", "old");  // from before invites: dropped once
  const auto relay = std::make_shared<RelaySettings>(settings);
  EXPECT_EQ(relay->account(), std::nullopt);
  relay->setCoordinatorURL(" https://c.example \n");
  relay->saveEnrollment("family", "https://c.example");
  relay->setEnabled(true);
  EXPECT_EQ(RelaySettings(settings).account(), (RelayAccount{"family", "https://c.example"}));
  relay->setCoordinatorURL("https://other.example");
  EXPECT_EQ(relay->account(), std::nullopt);

  const auto day = std::chrono::hours(24);
  const auto now = std::chrono::system_clock::now();
  const Data ann(65, 4), bob(65, 2);
  relay->deny(ann, now - 31 * day + std::chrono::seconds(1));
  relay->deny(bob, now);
  EXPECT_EQ(relay->deniedList(now), (std::vector<Data>{bob, ann}));
  EXPECT_EQ(relay->deniedList(now + std::chrono::seconds(1)), std::vector<Data>{bob});

  RelayProvisioner provisioner(relay, [now] { return now; });
  EXPECT_EQ(provisioner.provision(bob), std::nullopt) << "remote access is not running";
  const auto host = std::make_shared<P256RelaySigner>(P256PrivateKey::generate());
  provisioner.update(host, {{"relay.example", 4433}}, true);
  const auto given = provisioner.provision(bob);
  ASSERT_TRUE(given);
  EXPECT_TRUE(RelayJoinGrant::verify(given->grant, host->publicKeyX963()));
  EXPECT_EQ(relay->deniedList(now), std::vector<Data>{ann});

  settings->set("relay.denied", "nonsense");
  settings->set("relay.enabled", 3);
  EXPECT_TRUE(relay->deniedList(now).empty());
  EXPECT_FALSE(relay->enabled());
}

// A supervisor on a test clock whose listeners bind the port asked, or 5000, where `works` says.
struct Supervision {
  explicit Supervision(asio::io_context& io, Port firstPort = std::nullopt)
      : supervisor(ListenerSupervisor::make(
            io.get_executor(),
            [this](Port port) -> ListenerStart {
              made.push_back(std::make_shared<FakeListener>());
              return {made.back(), [port, up = works(port)]() -> asio::awaitable<std::uint16_t> {
                        if (!up) throw std::runtime_error("address in use");
                        co_return port.value_or(5000);
                      }};
            },
            [this](std::shared_ptr<Connection> c) { accepted.push_back(std::move(c)); },
            [this](auto d) { return clock.sleep(d); }, {}, firstPort)) {
    supervisor->setOnPortChange([this](Port p) { ports.push_back(p); });
  }
  ~Supervision() {
    if (supervisor) supervisor->stop();
    clock.advance(std::chrono::hours(1));
  }

  // The two tries a port is given after a failure, one and two seconds apart.
  asio::awaitable<void> retryTwice() {
    for (int retry = 1; retry <= 2; ++retry) {
      co_await sleepFor(10ms);
      EXPECT_EQ(supervisor->state(), ListenerState::retrying(retry, retry));
      clock.advance(std::chrono::seconds(retry));
    }
    co_await sleepFor(10ms);
  }

  ManualClock clock;
  std::function<bool(Port)> works = [](Port) { return true; };
  std::vector<std::shared_ptr<FakeListener>> made;
  std::vector<std::shared_ptr<Connection>> accepted;
  std::vector<Port> ports;
  std::shared_ptr<ListenerSupervisor> supervisor;
};

// Retries back off from 1 to 30 seconds; a port that worked, or the one asked for, is tried twice
// after a failure, then any port will do.
TEST(ListenerSupervisor, BacksOffKeepsItsPortTwiceThenTakesAnyAndEndsWithARestartOrItsOwner) {
  const std::vector<double> delays = {1, 2, 4, 8, 16, 30, 30, 30};
  for (int n = 0; n < 8; ++n) EXPECT_EQ(BackoffPolicy().delay(n), delays[n]) << n;
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Supervision s(io);
    s.supervisor->restart();
    co_await sleepFor(10ms);
    EXPECT_EQ(s.supervisor->state(), ListenerState::advertising(5000));
    auto [client, host] = InMemoryConnection::makePair();
    s.made.back()->connections().push(host);
    co_await sleepFor(10ms);
    EXPECT_EQ(s.accepted.size(), 1u);

    s.works = [](Port p) { return !p; };  // port 5000 is gone
    s.made.back()->die();
    co_await s.retryTwice();
    EXPECT_EQ(s.supervisor->state(), ListenerState::advertising(5000));
    // The death was the first failure on 5000, the retry on it the second: then any port.
    EXPECT_EQ(s.supervisor->requestedPorts(),
              (std::vector<Port>{std::nullopt, 5000, std::nullopt}));
    EXPECT_EQ(s.ports, (std::vector<Port>{std::nullopt, 5000, std::nullopt, std::nullopt, 5000}));

    Supervision asked(io, 4433);
    asked.works = [](Port p) { return p != 4433; };  // somebody else has it
    asked.supervisor->restart();
    co_await asked.retryTwice();
    EXPECT_EQ(asked.supervisor->state(), ListenerState::advertising(5000));
    EXPECT_EQ(asked.supervisor->requestedPorts(), (std::vector<Port>{4433, 4433, std::nullopt}));
    EXPECT_EQ(asked.made[0]->stops + asked.made[1]->stops, 2);  // each failed one, once
    const auto abandoned = asked.supervisor->abandonedPort().value_or(AbandonedPort{});
    EXPECT_EQ(std::tie(abandoned.port, abandoned.reason), std::tuple(4433, "address in use"));

    // A restart cancels the loop in its backoff; the supervisor's last owner ends the loop.
    Supervision restarted(io);
    restarted.works = [](Port) { return false; };
    restarted.supervisor->restart();
    co_await sleepFor(10ms);
    restarted.works = [](Port) { return true; };
    restarted.supervisor->restart();
    co_await sleepFor(10ms);
    EXPECT_EQ(restarted.supervisor->state(), ListenerState::advertising(5000));
    restarted.clock.advance(1s);  // the old sleep would have ended now
    co_await sleepFor(10ms);
    EXPECT_EQ(restarted.supervisor->requestedPorts().size(), 2u);
    EXPECT_EQ(restarted.made.size(), 2u);
    const std::weak_ptr<ListenerSupervisor> weak = restarted.supervisor;
    restarted.supervisor.reset();
    co_await sleepFor(10ms);
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(restarted.made.back()->stops, 1);
  });
}

// The path is judged by the sorted names of its interfaces: coming online or another set of
// interfaces restarts the listener; going offline or the same set in another order does not.
TEST(NetworkPathWatch, RestartsTheListenerWhenTheNetworkComesBackOrItsInterfacesChange) {
  const NetworkInterface wired{"eth0", "wiredEthernet"}, wifi{"wlan0", "wifi"};
  const NetworkInterface secondWired{"eth1", "wiredEthernet"};
  const std::vector<std::pair<NetworkPath, int>> pathsAndRestarts = {
      {{true, {wired, wifi}}, 0},  // the first path only sets the scene
      {{true, {wifi, wired}}, 0},        {{false, {}}, 0}, {{true, {wired}}, 1},
      {{true, {wired, secondWired}}, 2},  // another interface, even of a kind already there
      {{true, {secondWired}}, 3},
  };
  runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    auto paths = std::make_shared<AsyncQueue<NetworkPath>>();
    int restarts = 0;
    NetworkPathWatch watch(io.get_executor(), paths, [&] { ++restarts; });
    for (const auto& [path, restartsAfter] : pathsAndRestarts) {
      paths->push(path);
      co_await sleepFor(10ms);
      EXPECT_EQ(restarts, restartsAfter);
    }
    watch.stop();
    paths->push({false, {}});
    paths->push({true, {wifi}});
    co_await sleepFor(10ms);
    EXPECT_EQ(restarts, 3);
  });
}

}  // namespace
}  // namespace kelvaron::host
