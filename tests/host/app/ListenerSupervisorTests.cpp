// The listener's supervision: its restarts with backoff, the port it keeps, and the network
// changes that restart it.

#include "host/app/ListenerSupervisor.hpp"

#include <gtest/gtest.h>

#include "host/app/NetworkPathWatch.hpp"
#include "kit/transport/InMemoryConnection.hpp"
#include "tests/support/AsyncTest.hpp"
#include "tests/support/ManualClock.hpp"

namespace kelvaron::host {
namespace {

using namespace test;
using namespace std::chrono_literals;
using Port = std::optional<std::uint16_t>;

class FakeListener : public HostListener {
 public:
  AsyncQueue<std::shared_ptr<Connection>>& connections() override { return connections_; }
  void stop() override {
    ++stops;
    connections_.finish();
  }
  void die() { connections_.finish(); }  // ends the stream while the supervisor still wants it
  int stops = 0;

 private:
  AsyncQueue<std::shared_ptr<Connection>> connections_;
};

// A factory that succeeds only for the ports it is told, on the port asked (or 5000).
struct Factory {
  std::function<bool(Port)> works = [](Port) { return true; };
  std::vector<std::shared_ptr<FakeListener>> made;

  ListenerSupervisor::Factory function() {
    return [this](Port port) -> ListenerStart {
      auto listener = std::make_shared<FakeListener>();
      made.push_back(listener);
      const bool up = works(port);
      const std::uint16_t bound = port.value_or(5000);
      return {listener, [up, bound]() -> asio::awaitable<std::uint16_t> {
                if (!up) throw std::runtime_error("address in use");
                co_return bound;
              }};
    };
  }
};

struct Rig {
  explicit Rig(asio::io_context& io, Port firstPort = std::nullopt)
      : supervisor(ListenerSupervisor::make(
            io.get_executor(), factory.function(),
            [this](std::shared_ptr<Connection> c) { accepted.push_back(std::move(c)); },
            [this](std::chrono::duration<double> d) { return clock.sleep(d); }, {}, firstPort)) {
    supervisor->setOnPortChange([this](Port p) { ports.push_back(p); });
  }
  ~Rig() {
    supervisor->stop();
    clock.advance(std::chrono::hours(1));
  }

  ManualClock clock;
  Factory factory;
  std::vector<std::shared_ptr<Connection>> accepted;
  std::vector<Port> ports;
  std::shared_ptr<ListenerSupervisor> supervisor;
};

asio::awaitable<void> settle() { co_await sleepFor(10ms); }

// The two tries a port is given after a failure, one and two seconds apart.
asio::awaitable<void> retryTwice(Rig& rig) {
  co_await settle();
  EXPECT_EQ(rig.supervisor->state(), ListenerState::retrying(1, 1));
  rig.clock.advance(1s);
  co_await settle();
  EXPECT_EQ(rig.supervisor->state(), ListenerState::retrying(2, 2));
  rig.clock.advance(2s);
  co_await settle();
}

TEST(ListenerSupervisor, BacksOffFrom1To30Seconds) {
  const BackoffPolicy policy;
  const std::vector<double> expected = {1, 2, 4, 8, 16, 30, 30, 30};
  for (int n = 0; n < 8; ++n) EXPECT_EQ(policy.delay(n), expected[n]) << n;
}

TEST(ListenerSupervisor, KeepsItsPortTwiceThenTakesAny) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Rig rig(io);
    rig.supervisor->restart();
    co_await settle();
    EXPECT_EQ(rig.supervisor->state(), ListenerState::advertising(5000));
    auto [client, host] = InMemoryConnection::makePair();
    rig.factory.made.back()->connections().push(host);
    co_await settle();
    EXPECT_EQ(rig.accepted.size(), 1u);

    rig.factory.works = [](Port p) { return !p; };  // port 5000 is gone
    rig.factory.made.back()->die();
    co_await retryTwice(rig);
    EXPECT_EQ(rig.supervisor->state(), ListenerState::advertising(5000));
    // The death was the first failure on 5000, the retry on it the second: then any port.
    EXPECT_EQ(rig.supervisor->requestedPorts(),
              (std::vector<Port>{std::nullopt, 5000, std::nullopt}));
    EXPECT_EQ(rig.ports, (std::vector<Port>{std::nullopt, 5000, std::nullopt, std::nullopt, 5000}));
  });
}

TEST(ListenerSupervisor, APortAskedForIsKeptLikeOneThatWorked) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Rig rig(io, 4433);
    rig.factory.works = [](Port p) { return p != 4433; };  // somebody else has it
    rig.supervisor->restart();
    co_await retryTwice(rig);
    EXPECT_EQ(rig.supervisor->state(), ListenerState::advertising(5000));
    EXPECT_EQ(rig.supervisor->requestedPorts(), (std::vector<Port>{4433, 4433, std::nullopt}));
    // Each listener that failed was stopped, once.
    EXPECT_EQ(rig.factory.made[0]->stops + rig.factory.made[1]->stops, 2);
    CO_ASSERT_TRUE(rig.supervisor->abandonedPort().has_value());
    EXPECT_EQ(rig.supervisor->abandonedPort()->port, 4433);
    EXPECT_EQ(rig.supervisor->abandonedPort()->reason, "address in use");
  });
}

TEST(ListenerSupervisor, ARestartDuringTheBackoffLeavesTheOldLoopBehind) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Rig rig(io);
    rig.factory.works = [](Port) { return false; };
    rig.supervisor->restart();
    co_await settle();
    rig.factory.works = [](Port) { return true; };
    rig.supervisor->restart();  // cancels the first loop in its sleep
    co_await settle();
    EXPECT_EQ(rig.supervisor->state(), ListenerState::advertising(5000));
    rig.clock.advance(1s);  // the old sleep would have ended now
    co_await settle();
    EXPECT_EQ(rig.supervisor->requestedPorts().size(), 2u);
    EXPECT_EQ(rig.factory.made.size(), 2u);
  });
}

TEST(ListenerSupervisor, ItsLoopEndsWithItsLastOwner) {
  runAsync([](asio::io_context& io) -> asio::awaitable<void> {
    Factory factory;
    auto supervisor = ListenerSupervisor::make(io.get_executor(), factory.function(),
                                               [](std::shared_ptr<Connection>) {});
    supervisor->restart();
    co_await settle();
    EXPECT_EQ(supervisor->state(), ListenerState::advertising(5000));
    const std::weak_ptr<ListenerSupervisor> weak = supervisor;
    supervisor.reset();
    co_await settle();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(factory.made.back()->stops, 1);
  });
}

// The path is judged by the sorted names of its interfaces: coming online or another set of
// interfaces restarts the listener; going offline or the same set in another order does not.
TEST(NetworkPathWatch, RestartsTheListenerWhenTheNetworkComesBackOrItsInterfacesChange) {
  const NetworkInterface wired{"eth0", "wiredEthernet"}, wifi{"wlan0", "wifi"};
  const NetworkInterface secondWired{"eth1", "wiredEthernet"};
  runAsync([&](asio::io_context& io) -> asio::awaitable<void> {
    auto paths = std::make_shared<AsyncQueue<NetworkPath>>();
    int restarts = 0;
    NetworkPathWatch watch(io.get_executor(), paths, [&] { ++restarts; });
    paths->push({true, {wired, wifi}});  // the first path only sets the scene
    paths->push({true, {wifi, wired}});
    paths->push({false, {}});
    co_await settle();
    EXPECT_EQ(restarts, 0);
    paths->push({true, {wired}});  // back online
    co_await settle();
    EXPECT_EQ(restarts, 1);
    paths->push({true, {wired, secondWired}});  // another interface, even of a kind already there
    co_await settle();
    EXPECT_EQ(restarts, 2);
    paths->push({true, {secondWired}});  // one fewer
    co_await settle();
    EXPECT_EQ(restarts, 3);
    watch.stop();
    paths->push({false, {}});
    paths->push({true, {wifi}});
    co_await settle();
    EXPECT_EQ(restarts, 3);
  });
}

}  // namespace
}  // namespace kelvaron::host
