// AppModel with stand-ins for the computer and the network, and the real pairing and gate: which
// session is live, and what its devices hear.

#include "host/app/AppModel.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "kit/crypto/AuthCrypto.hpp"
#include "kit/security/ClientHandshake.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/HostFakes.hpp"
#include "tests/support/NetworkNamespace.hpp"
#include "tests/support/TempDirectory.hpp"

namespace kelvaron::host {
namespace {

using namespace test;

class QueueListener : public HostListener {
 public:
  AsyncQueue<std::shared_ptr<Connection>>& connections() override { return connections_; }
  void stop() override { connections_.finish(); }

 private:
  AsyncQueue<std::shared_ptr<Connection>> connections_;
};

struct Rig {
  explicit Rig(asio::io_context& io) {
    deps.listenerFactory = [this](const HostSecurity&, std::optional<std::uint16_t> port) {
      requestedPorts.push_back(port);
      listener = std::make_shared<QueueListener>();  // a listener is used once
      return ListenerStart{listener, []() -> asio::awaitable<std::uint16_t> { co_return 7000; }};
    };
    deps.loadSecurity = [this](const UUID& hostID, const std::string& name) {
      if (securityFailure) throw std::runtime_error(*securityFailure);
      const auto identity =
          std::make_shared<SelfSignedIdentity>(SelfSignedIdentity::temporary("Tovu Host"));
      auto store = std::make_shared<PairedDeviceStore>(std::nullopt);
      service = std::make_shared<HostPairingService>(hostID, name, identity->fingerprint(), store,
                                                     nullptr, [] { return WallClock::now(); });
      return HostSecurity{identity, service};
    };
    deps.probeEncoders = [this] {
      ++probes;
      return std::shared_ptr<EncoderFactory>(encoders);
    };
    deps.environment = [this](std::shared_ptr<EncoderFactory> factory) {
      HostEnvironment env;
      env.hostName = "studio";
      env.displays = displays;
      env.encoders = std::move(factory);
      env.makeCapture = [all = captures] { return std::make_shared<FakeCapture>(all); };
      env.injector = injector;
      return env;
    };
    deps.readPermissions = [] { return Permissions{true, true}; };
    deps.power = power;
    deps.settings = std::make_shared<Settings>(directory.path() / "settings.json");
    deps.hostName = "studio";
    deps.port = 7000;
    model = AppModel::make(io.get_executor(), deps);
  }
  ~Rig() { model->stop(); }

  // Until the model is listening, or the test's time is up.
  asio::awaitable<void> started() {
    model->start();
    model->start();
    for (int i = 0; i < 500 && !(model->supervisor() || model->securityError()); ++i) {
      co_await sleepFor(10ms);
    }
  }

  // Until the listener has been asked for `count` times, or the test's time is up.
  asio::awaitable<void> listenersRequested(std::size_t count) {
    for (int i = 0; i < 500 && requestedPorts.size() < count; ++i) co_await sleepFor(10ms);
  }

  // A device that pairs with a fresh token on a new connection, or signs in as paired, then says
  // hello; its end of the connection.
  asio::awaitable<std::shared_ptr<InMemoryConnection>> connect(const ClientIdentity& device,
                                                               std::string name, bool pair) {
    auto [client, host] = InMemoryConnection::makePair();
    listener->connections().push(host);
    const auto purpose = pair ? ClientHandshake::Purpose::pairWithToken(service->issueToken().value)
                              : ClientHandshake::Purpose::authenticate();
    const Data fingerprint = model->security()->identity->fingerprint();
    const std::function<std::optional<Data>()> pinned = [fingerprint] { return fingerprint; };
    const std::function<void(const std::string&)> noCode;
    const auto event =
        co_await ClientHandshake::run(client, device, purpose, name, pinned, 5s, noCode);
    EXPECT_EQ(event, ClientHandshake::Event::of(ClientHandshake::Event::Kind::authenticated));
    const msg::hello hello{
        16, device.deviceID, name, {{CodecProfile::hevcMain}, 1920, 1080, 2, "x", false}};
    client->send(hello);
    co_return client;
  }

  // Skips a device's messages up to one of type `Case`; nothing if the connection ends first.
  template <class Case>
  static asio::awaitable<std::optional<Case>> until(std::shared_ptr<InMemoryConnection> client) {
    while (const auto m = co_await nextWithin(client->messages(), 5s)) {
      if (const auto* found = std::get_if<Case>(&*m)) co_return *found;
    }
    co_return std::nullopt;
  }

  TempDirectory directory;
  AppModel::Dependencies deps;
  std::shared_ptr<QueueListener> listener = std::make_shared<QueueListener>();
  std::shared_ptr<HostPairingService> service;
  std::shared_ptr<FakeDisplays> displays = std::make_shared<FakeDisplays>();
  std::shared_ptr<FakeEncoders> encoders = std::make_shared<FakeEncoders>();
  std::shared_ptr<FakeCaptures> captures = std::make_shared<FakeCaptures>();
  std::shared_ptr<FakeInjector> injector = std::make_shared<FakeInjector>();
  std::shared_ptr<FakePower> power = std::make_shared<FakePower>();
  std::optional<std::string> securityFailure;
  std::vector<std::optional<std::uint16_t>> requestedPorts;
  int probes = 0;
  std::shared_ptr<AppModel> model;
};

TEST(AppModel, ListensOnceTheEncodersAreKnownOrSaysWhyItCannot) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Rig rig(io);
    co_await rig.started();
    EXPECT_EQ(rig.probes, 1);
    EXPECT_TRUE(rig.model->encoderReady());
    EXPECT_EQ(rig.model->supportedProfiles(), rig.encoders->profiles);
    CO_ASSERT_TRUE(rig.model->supervisor() != nullptr);
    EXPECT_EQ(rig.requestedPorts, (std::vector<std::optional<std::uint16_t>>{7000}));
    // The host's ID is made once and kept in the settings.
    const UUID id = rig.model->security()->service->hostID();
    EXPECT_EQ(Settings(rig.directory.path() / "settings.json").hostID(), id);

    Rig broken(io);
    broken.securityFailure = "the key store is locked";
    co_await broken.started();
    EXPECT_EQ(broken.model->securityError(),
              "Could not load the host identity: the key store is locked");
    EXPECT_EQ(broken.model->supervisor(), nullptr);
  });
}

// The host's own network: a second interface gets an address and loses it again; each time the
// listener starts anew (and with it its advertisement), on the port it had.
TEST(AppModel, RestartsTheListenerWhenTheNetworkChanges) {
  NetworkNamespace network;
  if (!network.problem().empty()) GTEST_SKIP() << network.problem();
  NetworkNamespace::addEthernet("tovu0", "tovu1", "10.77.0.1/24");
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Rig rig(io);
    co_await rig.started();
    co_await sleepFor(200ms);  // the watch has read the interfaces as they were
    NetworkNamespace::ip({"address", "add", "10.78.0.1/24", "dev", "tovu1"});
    co_await rig.listenersRequested(2);
    NetworkNamespace::ip({"address", "del", "10.78.0.1/24", "dev", "tovu1"});
    co_await rig.listenersRequested(3);
    EXPECT_EQ(rig.requestedPorts, (std::vector<std::optional<std::uint16_t>>{7000, 7000, 7000}));
  });
}

TEST(AppModel, TheLastDeviceToSignInIsLiveAndTheOneBeforeHearsWhoTookOver) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Rig rig(io);
    co_await rig.started();
    const ClientIdentity ann{AuthCrypto::randomUUID(), P256PrivateKey::generate()};
    const ClientIdentity bob{AuthCrypto::randomUUID(), P256PrivateKey::generate()};
    const std::string annName = "Ann's iPad", bobName = "Bob's iPhone";

    const auto first = co_await rig.connect(ann, annName, true);
    const auto ack = co_await Rig::until<msg::helloAck>(first);
    CO_ASSERT_TRUE(ack.has_value());
    for (int i = 0; i < 100 && !(rig.model->status() && rig.model->status()->deviceName == annName);
         ++i) {
      co_await sleepFor(10ms);
    }
    EXPECT_EQ(rig.model->status()->deviceName, annName);

    // A connection that never signs in stays a candidate and never shows.
    auto [silent, silentHost] = InMemoryConnection::makePair();
    rig.listener->connections().push(silentHost);

    // Ann again, by signature alone: the old session ends without a word.
    const auto again = co_await rig.connect(ann, annName, false);
    const auto replacedSelf = co_await Rig::until<msg::sessionReplaced>(first);
    EXPECT_EQ(replacedSelf, std::nullopt);
    co_await Rig::until<msg::helloAck>(again);

    // Bob takes over: Ann hears his name.
    const auto third = co_await rig.connect(bob, bobName, true);
    const auto replaced = co_await Rig::until<msg::sessionReplaced>(again);
    CO_ASSERT_TRUE(replaced.has_value());
    EXPECT_EQ(replaced->byDeviceName, bobName);
    co_await Rig::until<msg::helloAck>(third);
    co_await sleepFor(300ms);
    EXPECT_TRUE(rig.model->hasLiveSession());
    EXPECT_EQ(rig.model->status()->deviceName, bobName);
    EXPECT_EQ(rig.model->status()->phase, SessionStatus::Phase::streaming);
    EXPECT_EQ(rig.model->candidateCount(), 2u);  // Bob's, and the silent one

    // The live session ending by itself shows as ended, and leaves no live session.
    third->close();
    for (int i = 0; i < 100 && rig.model->hasLiveSession(); ++i) co_await sleepFor(10ms);
    EXPECT_FALSE(rig.model->hasLiveSession());
    EXPECT_EQ(rig.model->status()->phase, SessionStatus::Phase::ended);

    // Stopping ends the sessions that are left; the model says when their teardowns are over.
    rig.model->stop();
    co_await rig.model->sessionsEnded();
    EXPECT_EQ(rig.model->candidateCount(), 0u);
  });
}

// The settings file: values that last, and a damaged file that is kept, not overwritten.
void writeText(const std::filesystem::path& file, const std::string& text) {
  std::ofstream(file) << text;
}

std::string readText(const std::filesystem::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(Settings, KeepsItsValuesAndItsHostID) {
  TempDirectory directory;
  const auto file = directory.path() / "tovu-host" / "settings.json";
  UUID id;
  {
    Settings settings(file);
    EXPECT_EQ(settings.flag("keepDisplayAwakeWhileConnected"), std::nullopt);
    settings.setFlag("keepDisplayAwakeWhileConnected", false);
    id = settings.hostID();
    EXPECT_EQ(settings.hostID(), id);
  }
  Settings again(file);
  EXPECT_EQ(again.flag("keepDisplayAwakeWhileConnected"), false);
  EXPECT_EQ(again.hostID(), id);

  // A host ID that is no UUID is made anew; values of the wrong type count as absent.
  writeText(file, R"({"hostID": "not a uuid", "keepDisplayAwakeWhileConnected": "yes"})");
  Settings odd(file);
  EXPECT_EQ(odd.flag("keepDisplayAwakeWhileConnected"), std::nullopt);
  EXPECT_NE(odd.hostID(), id);
}

TEST(Settings, ADamagedFileCountsAsNothingAndIsKeptAside) {
  TempDirectory directory;
  const auto file = directory.path() / "settings.json";
  for (const std::string& damaged :
       std::vector<std::string>{"{\"hostID\": ", "[1, 2]", std::string("\xff\xfe", 2)}) {
    writeText(file, damaged);
    Settings settings(file);
    EXPECT_EQ(settings.flag("keepDisplayAwakeWhileConnected"), std::nullopt);
    settings.setFlag("keepDisplayAwakeWhileConnected", true);
    EXPECT_EQ(readText(std::filesystem::path(file).concat(".bad")), damaged);
    EXPECT_EQ(Settings(file).flag("keepDisplayAwakeWhileConnected"), true);
    std::filesystem::remove(file);
  }
}

}  // namespace
}  // namespace kelvaron::host
